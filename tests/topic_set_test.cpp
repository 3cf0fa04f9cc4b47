#include "observing/topic_set.hpp"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

namespace tolvan::vesk::tool {

namespace {

std::string any_topic(std::minstd_rand& random) {
    std::string topic;
    for (auto length = random() % 6; length > 0; --length) topic += ".a-\xff"[random() % 4];
    return topic;
}

bool stands_for(const std::string& topic, const std::string& received) {
    return topic.empty() || received == topic || received.starts_with(topic + ".");
}

TEST(TopicSet, contains_what_one_of_its_topics_stands_for_and_asks_for_no_topic_twice) {
    std::minstd_rand random;
    for (int round = 0; round < 2000; ++round) {
        std::vector<std::string> topics(random() % 8 + 1);
        for (auto& topic : topics) topic = "a" + any_topic(random);
        const topic_set set(topics);
        for (int i = 0; i < 50; ++i) {
            const std::string received = "a" + any_topic(random);
            const auto wants = [&](const std::string& topic) { return stands_for(topic, received); };
            ASSERT_EQ(set.contains(received), std::any_of(topics.begin(), topics.end(), wants)) << received;
            ASSERT_LE(std::count_if(set.filters().begin(), set.filters().end(), wants), 1) << received;
        }
    }
    EXPECT_TRUE(topic_set({}).contains("anything"));
    EXPECT_TRUE(topic_set({"a", ""}).is_everything());
}

}  // namespace

}  // namespace tolvan::vesk::tool

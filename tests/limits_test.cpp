// What a process can count on at the queue limits of its two sockets, and what becomes of more.
#include <numeric>
#include <vector>

#include "support/real_bus.hpp"

namespace {

using namespace tolvan;

class limits : public test::real_bus {
  protected:
    limits() { await_hub(); }

    // Publishes one message each to the topics "numbered.BEGIN" to "numbered.END", without END, at once.
    void publish(int begin, int end) {
        for (int number = begin; number < end; ++number)
            publisher.publish("numbered." + std::to_string(number), "");
    }

    void hear(const std::string& topic) {
        subscriber.subscribe(
            topic, [this](const auto& received) { heard.push_back(std::stoi(received.substr(9))); }, nullptr);
    }

    static std::vector<int> numbers(std::size_t count) {
        std::vector<int> all(count);
        std::iota(all.begin(), all.end(), 0);
        return all;
    }

    vesk::v1::subscriber subscriber;
    std::vector<int> heard;
};

TEST_F(limits, let_500_publications_of_one_burst_through_and_of_more_the_first_in_order) {
    hear("numbered");
    await_hub();
    publish(0, 500);
    await_hub();
    EXPECT_EQ(numbers(500), heard);

    heard.clear();
    publish(0, 20'000);
    await_hub();  // what comes after a burst gets through again
    EXPECT_TRUE(std::is_sorted(heard.begin(), heard.end()));
    heard.resize(std::min<std::size_t>(heard.size(), 500));
    EXPECT_EQ(numbers(500), heard);
}

TEST_F(limits, let_any_number_of_topics_through_when_500_at_a_time_wait_for_the_hub) {
    constexpr int topics = 3000;
    for (int number = 0; number < topics; ++number) {
        if (number % 500 == 499) await_hub();
        hear("numbered." + std::to_string(number));
    }
    for (int number = 0; number < topics; number += 500) {
        await_hub();
        publish(number, number + 500);
    }
    await_hub();
    EXPECT_EQ(numbers(topics), heard);
}

}  // namespace

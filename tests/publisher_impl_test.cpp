#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include <tolvan/vesk/hub/publisher_impl.hpp>

#include "support/captured_log.hpp"
#include "support/czmq_faults.hpp"
#include "support/hub_sides.hpp"

namespace {

using namespace tolvan;
using vesk::hub::publisher_impl;

std::int64_t steady_ms() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
}

class publisher_backend : public testing::Test {
  protected:
    publisher_backend() { hub.meet_publisher(); }

    test::frames publish(const std::string& topic, const std::string& data) {
        backend.publish(nullptr, topic, data);
        return hub.published();
    }

    test::hub_sides hub;
    publisher_impl backend{hub.pub_endpoint(), true};
};

TEST_F(publisher_backend, sends_topic_data_and_a_sixteen_byte_stamp) {
    const std::int64_t before = steady_ms();
    const auto message = publish("a.b", "{}");
    const std::int64_t after = steady_ms();
    ASSERT_EQ(3U, message.size());
    EXPECT_EQ("a.b", message[0]);
    EXPECT_EQ("{}", message[1]);
    ASSERT_EQ(16U, message[2].size());
    EXPECT_EQ(std::string("\1\0\0\0\0\0\0\0", 8), message[2].substr(0, 8));
    std::int64_t stamp = 0;
    for (std::size_t i = 16; i > 8; --i) stamp = (stamp << 8) | static_cast<unsigned char>(message[2][i - 1]);
    EXPECT_LE(before, stamp);
    EXPECT_GE(after, stamp);
}

TEST_F(publisher_backend, drops_what_comes_before_the_first_colon_of_a_topic_and_what_follows_a_nul) {
    struct row {
        std::string topic, data, wire_topic, wire_data;
    };
    for (const auto& [topic, data, wire_topic, wire_data] : {
             row{"svc:a.b", "", "a.b", ""},
             row{"x:y:z", "%s%n", "y:z", "%s%n"},
             row{":a", "d", "a", "d"},
             row{"abc:", "d", "", "d"},
             row{"", "d", "", "d"},
             row{std::string("a\0b:c", 5), std::string("ab\0cd", 5), "a", "ab"},
         }) {
        const auto message = publish(topic, data);
        ASSERT_EQ(3U, message.size()) << topic;
        EXPECT_EQ(wire_topic, message[0]) << topic;
        EXPECT_EQ(wire_data, message[1]) << topic;
    }
}

TEST_F(publisher_backend, keeps_the_data_of_cts_topics_out_of_the_log) {
    publish("first", "waits");
    const test::captured_log log;
    for (const char* const topic : {"cts/alarm", "svc:cts/alarm", "cts", "ctsx"}) publish(topic, "secret");
    const std::string prefix = "3 src/hub/publisher_impl publish: publish topic: ";
    EXPECT_EQ(
        (std::vector<std::string>{prefix + "'cts/alarm' data: censored", prefix + "'cts/alarm' data: secret",
                                  prefix + "'cts' data: secret", prefix + "'ctsx' data: secret"}),
        log.lines);
}

TEST_F(publisher_backend, waits_once_for_the_first_subscription_when_told_so) {
    const test::captured_log log;
    EXPECT_EQ("one", publish("a", "one")[1]) << "nothing is lost before the hub has subscribed";
    publish("a", "two");
    EXPECT_EQ(
        1,
        log.count("3 src/hub/publisher_impl publish: Sending first PUB message, doing a blocking receive"));
    EXPECT_EQ("3 src/hub/publisher_impl publish: publish topic: 'a' data: one", log.lines.at(1));
}

TEST_F(publisher_backend, logs_and_releases_a_message_that_could_not_be_sent) {
    publish("first", "waits");
    const test::czmq_faults faults;
    const test::captured_log log;
    test::czmq_faults::refuse_send = true;
    backend.publish(nullptr, "a", "lost");
    EXPECT_EQ((std::vector<std::string>{"0 src/hub/publisher_impl publish: zmsg_send() failed: -1",
                                        "3 src/hub/publisher_impl publish: publish topic: 'a' data: lost"}),
              log.lines);
}

TEST(a_publisher_backend, without_the_wait_never_blocks_and_says_where_it_connects) {
    const test::captured_log log;
    publisher_impl backend("inproc://nobody-is-there", false);
    backend.publish(nullptr, "a", "nobody hears it");
    EXPECT_EQ("3 src/hub/publisher_impl publisher_impl: connecting to inproc://nobody-is-there",
              log.lines.at(0));
}

TEST(a_publisher_backend, that_gets_no_socket_says_so) {
    const test::czmq_faults faults;
    test::czmq_faults::refuse_socket = true;
    try {
        const publisher_impl backend("inproc://any", false);
        FAIL() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("could not create ZMQ publishing socket", error.what());
    }
}

}  // namespace

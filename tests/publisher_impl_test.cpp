#include <array>
#include <atomic>
#include <thread>

#include <czmq.h>
#include <gmock/gmock.h>
#include <malloc.h>

#include <tolvan/vesk/hub/publisher_impl.hpp>

#include "support/captured_log.hpp"
#include "support/hub_sides.hpp"

static bool refuse_socket = false, refuse_send = false;

// The linker sends the library's calls here (--wrap), and ours on to czmq.
extern "C" {
zsock_t* __real_zsock_new_checked(int type, const char* file, size_t line);
int __real_zmsg_send(zmsg_t** message, void* socket);

zsock_t* __wrap_zsock_new_checked(int type, const char* file, size_t line) {
    return std::exchange(refuse_socket, false) ? nullptr : __real_zsock_new_checked(type, file, line);
}

int __wrap_zmsg_send(zmsg_t** message, void* socket) {
    return std::exchange(refuse_send, false) ? -1 : __real_zmsg_send(message, socket);
}
}

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
    const std::string metadata = publish("a.b", "{}").at(2);
    ASSERT_EQ(16U, metadata.size());
    EXPECT_EQ(std::string("\1\0\0\0\0\0\0\0", 8), metadata.substr(0, 8));
    std::int64_t stamp = 0;
    for (std::size_t i = 16; i > 8; --i) stamp = (stamp << 8) | static_cast<unsigned char>(metadata[i - 1]);
    EXPECT_LE(before, stamp);
    EXPECT_GE(steady_ms(), stamp);
}

TEST_F(publisher_backend, drops_what_comes_before_the_first_colon_of_a_topic_and_what_follows_a_nul) {
    const std::array<std::string, 4> rows[] = {
        {"svc:a.b", "", "a.b", ""},
        {"x:y:z", "%s%n", "y:z", "%s%n"},
        {"abc:", "d", "", "d"},
        {std::string("a\0b:c", 5), std::string("ab\0cd", 5), "a", "ab"},
    };
    for (const auto& [topic, data, wire_topic, wire_data] : rows)
        EXPECT_THAT(publish(topic, data), testing::ElementsAre(wire_topic, wire_data, testing::_));
}

TEST_F(publisher_backend, logs_and_releases_a_message_that_could_not_be_sent) {
    const auto memory_in_use = [] { return ::mallinfo2().hblkhd + ::mallinfo2().uordblks; };
    publish("first", "waits");
    const test::captured_log log(lumo::v1::error);
    refuse_send = true;
    const std::string lost(10'000'000, 'l');
    const auto before = memory_in_use();
    backend.publish(nullptr, "a", lost);
    EXPECT_LT(memory_in_use(), before + lost.size());
    EXPECT_EQ(test::frames{"0 src/hub/publisher_impl publish: zmsg_send() failed: -1"}, log.lines);
}

TEST(a_publisher_backend, told_to_wait_loses_nothing_although_the_hub_subscribes_late) {
    test::hub_sides hub;
    publisher_impl backend(hub.pub_endpoint(), true);
    std::atomic<int> waits = 0;
    const auto counting = lumo::v1::add_sink(lumo::v1::trace, [&](const lumo::v1::log_entry& entry) {
        waits += entry.text == std::string("Sending first PUB message, doing a blocking receive");
    });
    std::jthread publishing([&] {
        for (const char* const data : {"one", "two"}) backend.publish(nullptr, "a", data);
    });
    while (waits == 0) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // in which whoever does not wait loses both
    hub.meet_publisher();
    EXPECT_EQ("one", hub.published().at(1));
    EXPECT_EQ("two", hub.published().at(1));
    EXPECT_EQ(1, waits);
}

TEST(a_publisher_backend, without_the_wait_never_blocks_and_keeps_the_data_of_cts_topics_out_of_the_log) {
    const test::captured_log log;
    publisher_impl backend("inproc://nobody-is-there", false);
    for (const char* const topic : {"cts/alarm", "svc:cts/alarm", "ctsx"})
        backend.publish(nullptr, topic, "secret");
    const std::string of_file = "3 src/hub/publisher_impl ", topic = of_file + "publish: publish topic: ";
    EXPECT_THAT(log.lines,
                testing::ElementsAre(of_file + "publisher_impl: connecting to inproc://nobody-is-there",
                                     topic + "'cts/alarm' data: censored", topic + "'cts/alarm' data: secret",
                                     topic + "'ctsx' data: secret"));
}

TEST(a_publisher_backend, that_gets_no_socket_says_so) {
    refuse_socket = true;
    EXPECT_THAT([] { const publisher_impl backend("inproc://any", false); },
                testing::ThrowsMessage<std::runtime_error>("could not create ZMQ publishing socket"));
}

}  // namespace

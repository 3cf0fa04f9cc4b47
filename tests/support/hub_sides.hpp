#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tolvan/vesk/hub/hub_message.hpp>
#include <tolvan/vesk/hub/zmq_types.hpp>

namespace tolvan::test {

using frames = std::vector<std::string>;

/// The hub's side of both sockets, held by the test itself: what the library sends can be read frame by
/// frame, and any message can be put before it.
class hub_sides {
  public:
    hub_sides() {
        zsock_set_subscribe(publishing.get(), "");
        // Also shows a filter that an earlier library has left behind.
        zsock_set_xpub_verbose(subscription.get(), 1);
        for (zsock_t* side : {publishing.get(), subscription.get()}) {
            zsock_set_rcvtimeo(side, 20'000);
            zsock_set_sndhwm(side, 0);
        }
        EXPECT_EQ(0, zsock_bind(publishing.get(), "%s", pub_endpoint().c_str()));
        EXPECT_EQ(0, zsock_bind(subscription.get(), "%s", sub_endpoint().c_str()));
    }

    // With what a format would change.
    std::string pub_endpoint() const { return "inproc://pub-%%" + names; }
    std::string sub_endpoint() const { return "inproc://sub-%%" + names; }

    /// Lets the publishing side take note of a library that has connected, and subscribe there. Over inproc a
    /// socket does so only when it is asked something.
    void meet_publisher() { publishing.poll_events(); }

    /// The next message that the library has published.
    frames published() { return receive(publishing.get()); }

    /// The next filter that the library has set (byte 1, then the topic) or removed (byte 0, then the topic).
    std::string filter() { return receive(subscription.get()).front(); }

    /// Waits for that filter; passes over others.
    void await_filter(const std::string& wanted) {
        while (filter() != wanted) continue;
    }

    /// What `filter` gives for a topic that was subscribed to, or not any more.
    static std::string set(const std::string& topic) { return '\1' + topic; }
    static std::string removed(const std::string& topic) { return '\0' + topic; }

    /// Sends any message to the library.
    void relay(const frames& message) {
        zmsg_t* sent = zmsg_new();
        for (const auto& frame : message) zmsg_addmem(sent, frame.data(), frame.size());
        EXPECT_EQ(0, zmsg_send(&sent, subscription.get()));
    }

    /// Sends a message as another process would publish it.
    void relay(const std::string& topic, const std::string& data, std::int64_t timestamp_ms = 0) {
        relay({topic, data, metadata(timestamp_ms)});
    }

    /// Passes on whatever the library has published to what has subscribed to it, as a hub does.
    void forward() {
        subscription.poll_events();  // takes note of new filters
        while ((publishing.poll_events().bits & ZMQ_POLLIN) != 0) {
            zmsg_t* message = zmsg_recv(publishing.get());
            EXPECT_EQ(0, zmsg_send(&message, subscription.get()));
        }
    }

    static std::string metadata(std::int64_t timestamp_ms) {
        const vesk::hub::metadata_t record{.timestamp_ms = timestamp_ms};
        return {reinterpret_cast<const char*>(&record), sizeof record};
    }

  private:
    static frames receive(zsock_t* side) {
        const vesk::hub::message_ptr message(zmsg_recv(side));
        if (!message) throw std::runtime_error("nothing came");
        frames received;
        for (auto* frame = zmsg_first(message.get()); frame; frame = zmsg_next(message.get()))
            received.emplace_back(reinterpret_cast<const char*>(zframe_data(frame)), zframe_size(frame));
        return received;
    }

    static inline int instances = 0;
    const std::string names = std::to_string(++instances);
    vesk::hub::socket publishing{ZMQ_SUB}, subscription{ZMQ_XPUB};
};

}  // namespace tolvan::test

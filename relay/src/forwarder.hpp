#pragma once

#include <atomic>
#include <vector>

#include <zmq.hpp>

#include "connections.hpp"
#include "kept_bytes.hpp"
#include "patience.hpp"

namespace tolvan::relay {

/// The counters, written by the relaying thread alone.
struct live_counters {
    std::atomic<std::uint64_t> messages_in = 0, bytes_in = 0, messages_out = 0, bytes_out = 0, jams = 0,
                               publishers = 0, subscribers = 0, turns = 0;
};

/// Moves messages from one socket to the other until told to end. Everything of it runs on the relaying
/// thread.
class forwarder {
  public:
    /// What it works on, all of it outliving the forwarder.
    struct surroundings {
        zmq::socket_t& from;  ///< SUB, subscribed to everything
        zmq::socket_t& to;    ///< XPUB, which refuses a message for which a subscriber has no room
        connections& publishers;
        connections& subscribers;
        kept_bytes& kept;
        live_counters& counted;
        std::int64_t queue_bytes;
        int end;  ///< a descriptor that becomes readable when it is to end
    };

    explicit forwarder(const surroundings& given);

    /// Returns when told to end, between two messages. Throws `zmq::error_t`.
    void run();

  private:
    bool relay_burst();
    bool receive();
    void pass_on();
    bool send_frame(std::size_t index);
    bool send_first_frame();
    void drop_for_the_full();
    void track_large();
    void heed_budget();
    bool over_budget() const { return given.kept.now() > given.queue_bytes; }
    bool wait_for_budget();
    void attend(std::chrono::milliseconds wait);
    void follow_connections();
    void give_memory_back();
    void discard_subscriptions();
    void count_jam();

    const surroundings given;
    std::vector<zmq::pollitem_t> watched;
    std::vector<zmq::message_t> frames;  ///< of the message at hand, and some to spare
    std::size_t used = 0;                ///< frames of the message at hand
    patience left;
    bool ending = false;
    bool memory_to_give_back = false;
    steady::time_point now = steady::now(), calm_since = now;
};

}  // namespace tolvan::relay

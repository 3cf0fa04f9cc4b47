#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>

#include <zmq.hpp>

#include <tolvan/event_loop_v1.hpp>
#include <tolvan/wire/hub_message.hpp>
#include <tolvan/wire/monitor.hpp>

namespace tolvan::wire {

/// Sees what a hub relays without taking part in the bus: a SUB socket of its own, in a context of its own,
/// at the hub's subscription endpoint. While the loop is busy up to 100 000 messages wait; more than that is
/// left to the hub. Everything runs on the event loop's thread.
class tap {
  public:
    struct options {
        std::string endpoint;
        bool ipv6 = false;  ///< names are looked up as IPv6 addresses first, and "[::1]" is one
    };

    /// What they throw leaves the loop's run, and the rest is read afterwards. None may destroy the tap.
    struct callbacks {
        std::function<void(const hub_message&)> message;  ///< its views are valid during the call
        std::function<void()> idle = {};                  ///< no more messages wait
        std::function<void()> connected = {};  ///< the hub has greeted; it gets the filters from now on
        std::function<void()> lost = {};       ///< the connection has ended; what has come is still read
    };

    /// Connects, and from the loop's next turn on calls back for each message whose topic begins with one of
    /// the filters, in the order in which the hub relays them. Messages of one frame are left out. Whether a
    /// hub is there is not asked; one that goes and comes again gets the filters again. Throws
    /// std::runtime_error for an endpoint that is none.
    tap(event_loop_v1& loop, const options& given, callbacks called);
    tap(const tap&) = delete;
    tap& operator=(const tap&) = delete;
    ~tap();

    /// Adds a filter. It counts when the hub has it, which is after it has those that were added before.
    void subscribe(const std::string& topic_prefix);

    /// Takes one such filter back.
    void unsubscribe(const std::string& topic_prefix);

    /// For further sockets to the same hub, which must not outlive the tap.
    zmq::context_t& shared_context() { return context; }

  private:
    void connect(const options& given);
    void read_soon();
    void read();
    void read_events();
    bool deliver_next();
    std::size_t receive_frames();

    event_loop_v1& events;
    callbacks call;
    zmq::context_t context;
    zmq::socket_t socket{context, zmq::socket_type::sub};
    monitor connection{context, socket, "tap"};
    event_loop_v1::file_desc notification;
    event_loop_v1::file_desc connection_notification;
    event_loop_v1::holder<timer_impl_base> next_read;
    std::array<zmq::message_t, 3> frames;  ///< used again for each message
    zmq::message_t surplus;
    std::size_t bytes_of_turn = 0;
};

}  // namespace tolvan::wire

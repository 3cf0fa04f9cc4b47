#pragma once

#include <array>
#include <functional>
#include <string>

#include <zmq.hpp>

#include <tolvan/event_loop_v1.hpp>
#include <tolvan/wire/hub_message.hpp>

namespace tolvan::wire {

/// Sees what a hub relays without taking part in the bus: a SUB socket of its own, in a context of its own,
/// at the hub's subscription endpoint. Everything runs on the event loop's thread.
class tap {
  public:
    struct options {
        std::string endpoint;
        bool ipv6 = false;  ///< names are looked up as IPv6 addresses first, and "[::1]" is one
    };

    /// The message's views are valid during the call.
    using receiver = std::function<void(const hub_message&)>;

    /// Connects, and from the loop's next turn on calls `on_message` for each message whose topic begins with
    /// one of the filters, in the order in which the hub relays them. Messages of one frame are left out.
    /// Whether a hub is there is not asked; one that goes and comes again gets the filters again. What
    /// `on_message` throws leaves the loop's run, and the rest is read afterwards. Throws zmq::error_t for an
    /// endpoint that is none.
    tap(event_loop_v1& loop, const options& given, receiver on_message);
    tap(const tap&) = delete;
    tap& operator=(const tap&) = delete;

    /// Not to be destroyed from its own `on_message`.
    ~tap();

    /// Adds a filter. It counts when the hub has it: a message published before may be missed.
    void subscribe(const std::string& topic_prefix);

  private:
    void connect(const options& given);
    void read_soon();
    void read();
    bool deliver_next();
    std::size_t receive_frames();

    event_loop_v1& events;
    receiver receive;
    zmq::context_t context;
    zmq::socket_t socket{context, zmq::socket_type::sub};
    event_loop_v1::file_desc notification;
    event_loop_v1::holder<timer_impl_base> next_read;
    std::array<zmq::message_t, 3> frames;  ///< used again for each message
    zmq::message_t surplus;
};

}  // namespace tolvan::wire

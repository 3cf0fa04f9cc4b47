#include <cstdint>
#include <cstring>

#include <tolvan/wire/monitor.hpp>

namespace tolvan::wire {
namespace {

constexpr int told = ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED | ZMQ_EVENT_HANDSHAKE_SUCCEEDED;

// A 16-bit event and a 32-bit value, without padding.
connection_event decoded(const zmq::message_t& frame) {
    std::uint16_t event = 0;
    std::int32_t value = 0;
    std::memcpy(&event, frame.data<char>(), sizeof event);
    std::memcpy(&value, frame.data<char>() + sizeof event, sizeof value);
    if (event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) return {connection_event::kind::greeted};
    return {event == ZMQ_EVENT_ACCEPTED ? connection_event::kind::accepted : connection_event::kind::gone,
            value};
}

}  // namespace

// Without a limit: libzmq's own thread would wait for a place in the queue, and all connections with it.
monitor::monitor(zmq::context_t& context, zmq::socket_t& watched, const std::string& name)
    : events(context, zmq::socket_type::pair) {
    const std::string endpoint = "inproc://" + name;
    if (zmq_socket_monitor(watched.handle(), endpoint.c_str(), told) == -1) throw zmq::error_t();
    events.set(zmq::sockopt::rcvhwm, 0);
    events.set(zmq::sockopt::linger, 0);
    events.connect(endpoint);
}

std::optional<connection_event> monitor::next() {
    zmq::message_t event, endpoint;
    if (!events.recv(event, zmq::recv_flags::dontwait)) return std::nullopt;
    if (!events.recv(endpoint)) return std::nullopt;
    return decoded(event);
}

}  // namespace tolvan::wire

#include <stdexcept>

#include <tolvan/wire/connecting.hpp>

namespace tolvan::wire {

namespace {

// What the system does for TCP. libzmq's own heartbeats end the process in an assertion when the hub cuts a
// connection whose queue is full (4.3.4, stream_engine_base.cpp:331).
constexpr int keepalive_seconds = 10;
constexpr int keepalive_tries = 5;

}  // namespace

void connect_to(zmq::socket_t& socket, const std::string& endpoint, bool ipv6) {
    socket.set(zmq::sockopt::ipv6, ipv6);
    socket.set(zmq::sockopt::linger, 0);
    socket.set(zmq::sockopt::tcp_keepalive, 1);
    socket.set(zmq::sockopt::tcp_keepalive_idle, keepalive_seconds);
    socket.set(zmq::sockopt::tcp_keepalive_intvl, keepalive_seconds);
    socket.set(zmq::sockopt::tcp_keepalive_cnt, keepalive_tries);
    try {
        socket.connect(endpoint);
    } catch (const zmq::error_t& error) {
        throw std::runtime_error("could not connect to " + endpoint + ": " + error.what());
    }
}

}  // namespace tolvan::wire

#pragma once

#include <string>

#include <zmq.hpp>

namespace tolvan::wire {

/// Connects a client's socket, which drops at its end what has not gone out. Over TCP it finds out within a
/// minute when the other machine has silently gone, and tries again. With `ipv6` names are looked up as IPv6
/// addresses first. Throws std::runtime_error, which names it, for an endpoint that is none; whether anybody
/// is there is not asked.
void connect_to(zmq::socket_t& socket, const std::string& endpoint, bool ipv6);

}  // namespace tolvan::wire

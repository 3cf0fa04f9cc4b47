#pragma once

#include <string>
#include <string_view>

#include <zmq.hpp>

namespace tolvan::wire {

/// Sends to a hub without taking part in the bus: a PUB socket at the hub's publishing endpoint.
class sender {
  public:
    /// Connects, as `connect_to`.
    sender(zmq::context_t& context, const std::string& endpoint, bool ipv6);

    /// Sends a message with the stamp of this moment. Never waits; one that is sent before the hub has taken
    /// up the connection, or beyond the socket's queue, is lost.
    void send(std::string_view topic, std::string_view data);

  private:
    zmq::socket_t socket;
};

}  // namespace tolvan::wire

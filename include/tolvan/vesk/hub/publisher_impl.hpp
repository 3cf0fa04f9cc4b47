#pragma once

#include <string>

#include <tolvan/vesk/hub/zmq_types.hpp>
#include <tolvan/vesk/v1/publisher.hpp>

namespace tolvan::vesk::hub {

/// Sends every publication of the process to the hub, over one XPUB socket.
class publisher_impl final : public v1::publisher::backend {
  public:
    /// Connects to the hub's publishing endpoint; does not wait until the hub is there. Throws
    /// std::runtime_error for an endpoint that ZeroMQ rejects.
    publisher_impl(const std::string& endpoint, bool block_on_first_publish);

    /// Sends one message; failures go to the log. If the constructor was told so, the first call blocks
    /// without limit until the hub's first subscription has arrived, or a signal with a handler; no later
    /// call waits.
    void publish(v1::publisher* client, const std::string& topic, const std::string& data) override;

  private:
    void await_first_subscription();
    void send(const char* wire_topic, const char* data);

    socket pub_socket;
    bool first_pub_done;
};

}  // namespace tolvan::vesk::hub

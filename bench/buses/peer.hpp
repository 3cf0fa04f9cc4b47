#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace tolvan::bench {

/// Begins every topic of these measurements.
inline constexpr const char* topic_root = "throughput";

/// An application's side of a bus: publishes, or receives what is published under `topic_root`.
class peer {
  public:
    peer() = default;
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;
    virtual ~peer() = default;

    virtual void publish(const std::string& topic, const std::string& data) = 0;

    /// Calls `received` with the topic of each message until it returns false.
    virtual void receive(const std::function<bool(std::string_view topic)>& received) = 0;
};

/// Connects to a bus at the two endpoints of its hub, which are the same for most. Subscribes when the peer
/// is to receive. Throws std::exception when that fails.
using peer_factory = std::unique_ptr<peer> (*)(const std::string& pub_endpoint,
                                               const std::string& sub_endpoint, bool receives);

std::unique_ptr<peer> make_vesk_peer(const std::string& pub, const std::string& sub, bool receives);
std::unique_ptr<peer> make_czmq_peer(const std::string& pub, const std::string& sub, bool receives);
std::unique_ptr<peer> make_nats_peer(const std::string& pub, const std::string& sub, bool receives);
std::unique_ptr<peer> make_mosquitto_peer(const std::string& pub, const std::string& sub, bool receives);
std::unique_ptr<peer> make_nng_peer(const std::string& pub, const std::string& sub, bool receives);

/// The hub of nng, which has none of its own: forwards until the process is ended.
int forward_nng(const std::string& pub, const std::string& sub);

}  // namespace tolvan::bench

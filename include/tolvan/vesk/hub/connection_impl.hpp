#pragma once

#include <string>

#include <tolvan/vesk/v1/connection.hpp>

namespace tolvan::vesk::hub {

/// The hub transport's connection: fills the bus's backend slots.
class connection_impl final : public v1::connection::impl {
  public:
    /// Keeps czmq from installing signal handlers in the host process, by setting "ZSYS_SIGHANDLER" to
    /// "false" in its environment.
    connection_impl();

    /// Creates and installs the backends, one after the other. Throws std::runtime_error for an empty
    /// endpoint or one that ZeroMQ rejects; backends that were installed before the failure stay.
    void initialize(v1::conf_t&& conf) override;

    /// Has no effect: the hub knows no service names.
    void set_service_name(const std::string& name) override;
};

}  // namespace tolvan::vesk::hub

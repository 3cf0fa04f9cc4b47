#pragma once

#include <filesystem>
#include <string>

namespace tolvan::relay {

/// An endpoint that the hub may bind.
struct bind_address {
    std::string text;                ///< as libzmq's bind takes it
    std::filesystem::path ipc_path;  ///< where its socket will lie, absolute; empty when it makes no file
    bool ipv6 = false;               ///< the socket needs IPv6 switched on
};

/// Judges an endpoint without touching it: the protocol has no authentication, so that only those are let
/// through that no other machine and, `allow_remote` aside, no other user can reach.
/// Throws `std::runtime_error` with the reason alone; the caller adds the endpoint.
bind_address judge_endpoint(const std::string& endpoint, bool allow_remote);

/// Whether both are the same ipc socket, by whatever road through links.
bool is_same_ipc(const bind_address& one, const bind_address& other);

}  // namespace tolvan::relay

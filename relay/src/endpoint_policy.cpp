#include "endpoint_policy.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/un.h>

namespace tolvan::relay {
namespace {

constexpr std::string_view tcp_prefix = "tcp://";
constexpr std::string_view ipc_prefix = "ipc://";

constexpr std::size_t longest_ipc_path = sizeof(sockaddr_un::sun_path) - 1;

bool is_loopback(const std::string& host) {
    if (host == "localhost" || host == "[::1]") return true;
    in_addr address{};
    return inet_pton(AF_INET, host.c_str(), &address) == 1 && ntohl(address.s_addr) >> 24 == 127;
}

// As bind has it, which resolves no names.
bool is_known(const std::string& host) {
    in_addr address{};
    return host == "*" || host == "localhost" || host.starts_with('[') ||
           inet_pton(AF_INET, host.c_str(), &address) == 1 || if_nametoindex(host.c_str()) != 0;
}

void check_host(const std::string& host, bool allow_remote) {
    if (!is_known(host)) {
        throw std::runtime_error("unknown host " + host +
                                 "; known are *, localhost, numbers (IPv6 in []) and network interfaces");
    }
    if (!allow_remote && !is_loopback(host))
        throw std::runtime_error("not a loopback address; other machines need --allow-remote");
}

// libzmq would take 70000 for 4464.
bool is_port(std::string_view text) {
    if (text == "*") return true;
    std::uint16_t port = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, port);
    return error == std::errc{} && rest == end;
}

bind_address judge_tcp(std::string_view address, bool allow_remote) {
    const auto colon = std::min(address.rfind(':'), address.size());
    std::string host(address.substr(0, colon));
    const std::string port(address.substr(std::min(colon + 1, address.size())));
    if (host.empty() || !is_port(port))
        throw std::runtime_error("tcp needs HOST:PORT, with a port up to 65535 or *");
    check_host(host, allow_remote);
    if (host == "localhost") host = "127.0.0.1";
    return {std::string(tcp_prefix) + host + ":" + port, {}, host.front() == '['};
}

void check_length(const std::string& path) {
    if (path.size() <= longest_ipc_path) return;
    throw std::runtime_error("the path has " + std::to_string(path.size()) +
                             " bytes, the longest possible is " + std::to_string(longest_ipc_path));
}

bind_address judge_abstract_ipc(const std::string& name, bool allow_remote) {
    if (!allow_remote) {
        throw std::runtime_error("any user can reach an abstract ipc name; that needs --allow-remote");
    }
    check_length(name);
    return {std::string(ipc_prefix) + name, {}, false};
}

bind_address judge_ipc(const std::string& name, bool allow_remote) {
    if (name.starts_with('@')) return judge_abstract_ipc(name, allow_remote);
    if (name.empty() || name == "*" || name.ends_with('/')) {
        throw std::runtime_error("ipc needs the path of a socket");
    }
    const auto path = std::filesystem::absolute(name);
    check_length(path.native());
    return {std::string(ipc_prefix) + path.native(), path, false};
}

}  // namespace

bind_address judge_endpoint(const std::string& endpoint, bool allow_remote) {
    if (endpoint.starts_with(tcp_prefix)) return judge_tcp(endpoint.substr(tcp_prefix.size()), allow_remote);
    if (endpoint.starts_with(ipc_prefix)) return judge_ipc(endpoint.substr(ipc_prefix.size()), allow_remote);
    throw std::runtime_error("neither a tcp:// nor an ipc:// endpoint");
}

bool is_same_ipc(const bind_address& one, const bind_address& other) {
    if (!one.text.starts_with(ipc_prefix)) return false;
    std::error_code unknowable;
    return one.text == other.text ||
           (!one.ipc_path.empty() && std::filesystem::weakly_canonical(one.ipc_path, unknowable) ==
                                         std::filesystem::weakly_canonical(other.ipc_path, unknowable));
}

}  // namespace tolvan::relay

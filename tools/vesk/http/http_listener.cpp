#include "http/http_listener.hpp"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace tolvan::vesk::tool {

namespace {

// What comes while all connections are taken waits in the system, and costs no descriptor.
constexpr int longest_backlog = 511;

using addresses = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

// getaddrinfo would take 70000 for 4464.
bool is_port(const std::string& text) {
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, port);
    return error == std::errc{} && rest == end;
}

// The host as getaddrinfo takes it.
std::optional<std::string> numeric_host(const std::string& text) {
    if (text == "localhost") return "127.0.0.1";
    if (text == "*") return "0.0.0.0";
    if (text.size() > 2 && text.starts_with('[') && text.ends_with(']'))
        return text.substr(1, text.size() - 2);
    in_addr ipv4{};
    return ::inet_pton(AF_INET, text.c_str(), &ipv4) == 1 ? std::optional(text) : std::nullopt;
}

addresses read_address(const std::string& text) {
    const auto colon = std::min(text.rfind(':'), text.size());
    const auto host = numeric_host(text.substr(0, colon));
    const std::string port = text.substr(std::min(colon + 1, text.size()));
    addrinfo wanted{}, *found = nullptr;
    wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    wanted.ai_socktype = SOCK_STREAM;
    if (!host || !is_port(port) || ::getaddrinfo(host->c_str(), port.c_str(), &wanted, &found) != 0)
        throw std::runtime_error(
            "it needs ADDRESS:PORT: localhost, * or a number (IPv6 in []), and a port up to 65535");
    return {found, &::freeaddrinfo};
}

bool is_loopback(const sockaddr& address) {
    if (address.sa_family == AF_INET6)
        return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
    return ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
}

[[noreturn]] void fail() {
    throw std::runtime_error(std::generic_category().message(errno));
}

wire::descriptor listening_at(const addrinfo& address) {
    wire::descriptor socket(::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // Connections of a hub that was here before do not keep the port from this one.
    const int yes = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (socket.get() == -1 || ::bind(socket.get(), address.ai_addr, address.ai_addrlen) == -1 ||
        ::listen(socket.get(), longest_backlog) == -1)
        fail();
    return socket;
}

wire::descriptor bound(const std::string& text, bool allow_remote) {
    const addresses found = read_address(text);
    if (!allow_remote && !is_loopback(*found->ai_addr))
        throw std::runtime_error("not a loopback address; other machines need --allow-remote");
    return listening_at(*found);
}

}  // namespace

http_listener::http_listener(const std::string& address, bool allow_remote) try
    : socket(bound(address, allow_remote)) {
} catch (const std::runtime_error& failure) {
    throw std::runtime_error("could not bind the status page to " + address + ": " + failure.what());
}

std::string http_listener::url() const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    char host[NI_MAXHOST] = "", port[NI_MAXSERV] = "";
    ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
    ::getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof host, port, sizeof port,
                  NI_NUMERICHOST | NI_NUMERICSERV);
    const bool ipv6 = address.ss_family == AF_INET6;
    return std::string("http://") + (ipv6 ? "[" : "") + host + (ipv6 ? "]:" : ":") + port + "/";
}

}  // namespace tolvan::vesk::tool

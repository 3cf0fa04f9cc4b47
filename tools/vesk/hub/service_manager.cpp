#include "hub/service_manager.hpp"

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <system_error>

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "terminal/tell.hpp"

namespace tolvan::vesk::tool {

namespace {

std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

std::int64_t number_in_environment(const char* name) {
    const std::string text = environment(name);
    std::int64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// The variables are inherited: a process in between may be the one that they are meant for.
std::chrono::microseconds patience_of_the_watchdog() {
    const auto meant_for = number_in_environment("WATCHDOG_PID");
    if (meant_for != 0 && meant_for != ::getpid()) return {};
    return std::chrono::microseconds(number_in_environment("WATCHDOG_USEC"));
}

wire::descriptor datagram_socket() {
    wire::descriptor made(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (made.get() < 0) throw std::system_error(errno, std::generic_category(), "socket");
    return made;
}

// A path that begins with "@" is in the abstract namespace, whose names begin with a NUL byte. One that is
// too long is cut, and nobody is there.
socklen_t to_address(const std::string& path, sockaddr_un& address) {
    address.sun_family = AF_UNIX;
    const auto length = path.copy(address.sun_path, sizeof address.sun_path);
    if (path.front() == '@') address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

}  // namespace

// A third of the patience: the relay makes a turn each second, even when nothing is to be done.
service_manager::service_manager() : socket_path(environment("NOTIFY_SOCKET")) {
    if (socket_path.empty()) return;
    sender = datagram_socket();
    interval = seconds(patience_of_the_watchdog()) / 3;
}

void service_manager::watch(std::uint64_t turns) {
    if (turns != seen_turns) say("WATCHDOG=1");
    seen_turns = turns;
}

void service_manager::say(const std::string& state) const {
    if (socket_path.empty()) return;
    sockaddr_un address{};
    const socklen_t length = to_address(socket_path, address);
    if (::sendto(sender.get(), state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&address), length) >= 0)
        return;
    tell(fmt::format("could not send {} to NOTIFY_SOCKET {}: {}", state, socket_path,
                     std::generic_category().message(errno)));
}

}  // namespace tolvan::vesk::tool

#include "http/http_connection.hpp"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <poll.h>
#include <sys/socket.h>

namespace tolvan::vesk::tool {

namespace {

// For all of it: also for somebody who sends or takes a byte now and then.
constexpr std::chrono::seconds client_patience{10};

constexpr std::string_view end_of_head = "\r\n\r\n";

constexpr const char* too_long =
    "HTTP/1.1 431 Request Header Fields Too Large\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";

// What was not read when a socket is closed costs the client the response.
constexpr std::size_t most_discarded = 65536;

bool would_wait() {
    return errno == EAGAIN || errno == EINTR;
}

}  // namespace

short http_connection::awaited() const {
    return written < response.size() ? POLLOUT : POLLIN;
}

void http_connection::attend(const answerer& answer) {
    over = !(response.empty() ? read(answer) : written < response.size() ? write() : discard());
}

void http_connection::give_up_if_late(clock::time_point now) {
    over = over || now - begin > client_patience;
}

bool http_connection::read(const answerer& answer) {
    char piece[2048];
    const auto got = ::recv(socket.get(), piece, sizeof piece, 0);
    if (got <= 0) return got < 0 && would_wait();
    const std::size_t seen = request.size() - std::min(request.size(), end_of_head.size() - 1);
    request.append(piece, static_cast<std::size_t>(got));
    const auto end = request.find(end_of_head, seen);
    if (end == std::string::npos && request.size() <= longest_request) return true;
    response = end < longest_request ? answer(request.substr(0, end + end_of_head.size())) : too_long;
    return write();
}

bool http_connection::write() {
    const auto put = ::send(socket.get(), response.data() + written, response.size() - written, MSG_NOSIGNAL);
    if (put < 0) return would_wait();
    written += static_cast<std::size_t>(put);
    if (written == response.size()) ::shutdown(socket.get(), SHUT_WR);
    return true;
}

bool http_connection::discard() {
    char piece[4096];
    const auto got = ::recv(socket.get(), piece, sizeof piece, 0);
    if (got <= 0) return got < 0 && would_wait();
    discarded += static_cast<std::size_t>(got);
    return discarded < most_discarded;
}

}  // namespace tolvan::vesk::tool

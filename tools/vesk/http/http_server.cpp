#include "http/http_server.hpp"

#include <cerrno>
#include <exception>
#include <system_error>

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <tolvan/relay/accept_guard.hpp>

namespace tolvan::vesk::tool {

namespace {

using namespace std::chrono_literals;

// What is polled, by index; connections stand behind.
enum : std::size_t { told_to_end, arrivals, first_connection };

// Of time limits, while there is anybody to whom they apply.
constexpr int resolution_ms = 100;

// A new connection has a right to so much time: those who send nothing cannot push out somebody whose
// request is on its way.
constexpr auto least_stay = 100ms;

// After a connection that could not be taken, for want of something.
constexpr auto pause_after_failure = 100ms;

// Whoever asks for pages without end gets what the relay leaves. On Linux it holds for the thread alone.
constexpr int niceness = 10;

}  // namespace

http_server::http_server(http_listener bound, http_connection::answerer answers)
    : listener(std::move(bound)), answer(std::move(answers)), end(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (end.get() == -1) throw std::system_error(errno, std::generic_category(), "eventfd");
    serving = std::thread(&http_server::serve, this);
}

http_server::~http_server() {
    ::eventfd_write(end.get(), 1);
    serving.join();
}

void http_server::serve() {
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), niceness);
    for (auto polled = wait(); polled[told_to_end].revents == 0; polled = wait()) {
        attend(polled);
        if (polled[arrivals].revents != 0) take_connection();
    }
}

std::vector<pollfd> http_server::wait() const {
    const bool may_take = clock::now() >= next_look && has_room();
    std::vector<pollfd> polled = {{end.get(), POLLIN, 0}, {may_take ? listener.descriptor() : -1, POLLIN, 0}};
    for (const auto& each : connections) polled.push_back({each.descriptor(), each.awaited(), 0});
    ::poll(polled.data(), polled.size(), may_take && connections.empty() ? -1 : resolution_ms);
    return polled;
}

bool http_server::has_room() const {
    return connections.size() < most_connections || clock::now() - connections.front().since() > least_stay;
}

void http_server::attend(const std::vector<pollfd>& polled) {
    for (std::size_t i = 0; i < connections.size(); ++i) {
        if (polled[first_connection + i].revents != 0) attend(connections[i]);
        connections[i].give_up_if_late(clock::now());
    }
    std::erase_if(connections, [](const auto& each) { return each.is_over(); });
}

// Memory that cannot be had is no reason to end the hub.
void http_server::attend(http_connection& connection) noexcept {
    try {
        connection.attend(answer);
    } catch (const std::exception&) {
        connection.give_up();
    }
}

void http_server::take_connection() {
    if (connections.size() == most_connections) connections.erase(connections.begin());
    const int taken = relay::accept_for_the_process(listener.descriptor());
    if (taken == -1)
        next_look = clock::now() + pause_after_failure;
    else
        connections.emplace_back(wire::descriptor(taken), clock::now());
}

}  // namespace tolvan::vesk::tool

#pragma once

#include <thread>
#include <vector>

#include <poll.h>

#include <tolvan/wire/descriptor.hpp>

#include "http/http_connection.hpp"
#include "http/http_listener.hpp"

namespace tolvan::vesk::tool {

/// Answers HTTP requests on one thread of its own, with low priority, from construction to destruction, which
/// does not wait for clients. `relay::guard_descriptors` has to keep `most_connections` descriptors.
class http_server {
  public:
    /// Whoever comes when there are so many, takes the place of the oldest.
    static constexpr std::size_t most_connections = 32;

    /// `answer` is called on the server's thread. Throws std::system_error.
    http_server(http_listener bound, http_connection::answerer answer);
    http_server(const http_server&) = delete;
    http_server& operator=(const http_server&) = delete;
    ~http_server();

  private:
    using clock = http_connection::clock;

    void serve();
    std::vector<pollfd> wait() const;
    bool has_room() const;
    void attend(const std::vector<pollfd>& polled);
    void attend(http_connection& connection) noexcept;
    void take_connection();

    const http_listener listener;
    const http_connection::answerer answer;
    const wire::descriptor end;
    std::vector<http_connection> connections;  ///< the oldest first
    clock::time_point next_look{};             ///< at the listener
    std::thread serving;
};

}  // namespace tolvan::vesk::tool

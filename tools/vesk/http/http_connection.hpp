#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::vesk::tool {

/// A client: one request and its response, then the end. Never waits.
class http_connection {
  public:
    using clock = std::chrono::steady_clock;
    using answerer = std::function<std::string(const std::string& request)>;

    /// Of a request, up to the empty line behind its head.
    static constexpr std::size_t longest_request = 8192;

    http_connection(wire::descriptor connected, clock::time_point now)
        : socket(std::move(connected)), begin(now) {}

    int descriptor() const { return socket.get(); }

    /// What to poll for.
    short awaited() const;

    /// Does what can be done; to be called when what was polled for has come. Throws what `answer` throws.
    void attend(const answerer& answer);

    void give_up() { over = true; }

    /// Gives up on somebody who takes too long.
    void give_up_if_late(clock::time_point now);

    bool is_over() const { return over; }
    clock::time_point since() const { return begin; }

  private:
    bool read(const answerer& answer);
    bool write();
    bool discard();

    wire::descriptor socket;
    clock::time_point begin;
    std::string request, response;
    std::size_t written = 0, discarded = 0;
    bool over = false;
};

}  // namespace tolvan::vesk::tool

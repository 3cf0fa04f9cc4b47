#pragma once

#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

/// What the templates of typed_calls.hpp stand on.
namespace tolvan::vesk::toolkit::detail {

/// Throws std::invalid_argument, which names them, for an identity that no server can have (empty, or with
/// "." or ":" in it) and for a command with ":", which the bus would cut.
void require_address(const std::string& server, const std::string& command);

/// Throws std::invalid_argument, which names the call, for an empty callback.
template <typename Callback>
void require_callback(const Callback& callback, const std::string& call) {
    if (!callback) throw std::invalid_argument(call + ": the callback is empty");
}

/// Calls `on_failure` with what a request has failed with: a time-out, and what has kept it from being sent,
/// as it is, everything else as request_refused.
void tell_failure(const std::exception_ptr& failure, bool was_sent,
                  const std::function<void(const std::exception&)>& on_failure);

}  // namespace tolvan::vesk::toolkit::detail

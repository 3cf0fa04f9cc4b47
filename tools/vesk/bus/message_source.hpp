#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bus/number_ranges.hpp"
#include "bus/unconfirmed_messages.hpp"

namespace tolvan::vesk::tool {

/// A message that cannot be published; says which it is, and why.
class refused_message : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Throws refused_message for a text that the hub does not carry. `name` says what the text is.
void refuse_unless_carried(const std::string& name, std::string_view text);

/// Where the messages come from that a publication_run publishes.
class message_source {
  public:
    message_source() = default;
    message_source(const message_source&) = delete;
    message_source& operator=(const message_source&) = delete;
    virtual ~message_source() = default;

    /// The next message, if it is time for one. Their numbers ascend. Throws refused_message.
    virtual std::optional<numbered_message> next() = 0;

    /// Whether there are no more.
    virtual bool at_end() const = 0;

    /// Calls `callback` once, from the event loop, when there may be more. Does nothing while one is waited
    /// for.
    virtual void await_more(std::function<void()> callback) = 0;

    /// For people: the messages with those numbers.
    virtual std::string named(const number_ranges& numbers) const = 0;
};

}  // namespace tolvan::vesk::tool

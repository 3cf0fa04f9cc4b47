#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tolvan::wire {

/// A hub message as it lies in the frames that it came in. The texts are bytes: nobody has looked at their
/// encoding, and they may contain anything.
struct hub_message {
    std::string_view topic;
    std::string_view data;
    std::optional<std::int64_t>
        stamp_ms;  ///< the sender's steady clock; none without a readable metadata record
};

/// How old a message is by its stamp, in milliseconds; none without a stamp, or with one that no clock of
/// this machine can have made. On another machine than the sender's the figure means nothing.
std::optional<std::int64_t> age_of(
    const hub_message& message, std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

/// The stamp of a metadata frame, if it is a record of the known version.
std::optional<std::int64_t> stamp_of(std::string_view metadata);

}  // namespace tolvan::wire

#pragma once

#include <chrono>
#include <string>

#include <tolvan/wire/hub_message.hpp>

namespace tolvan::vesk::tool {

/// Appends a moment in ISO 8601, in local time with microseconds: 2026-11-24T17:05:09.250000+01:00.
void append_iso_time(std::string& to, std::chrono::system_clock::time_point moment);

/// Appends how old the message is now in milliseconds, by its stamp; `otherwise` without a stamp. On another
/// machine than the sender's the figure means nothing, and may be less than 0.
void append_age(std::string& to, const wire::hub_message& message, const char* otherwise);

}  // namespace tolvan::vesk::tool

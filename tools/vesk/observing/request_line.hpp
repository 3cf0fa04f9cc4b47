#pragma once

#include <chrono>
#include <string>

#include "observing/request_pairs.hpp"

namespace tolvan::vesk::tool {

/// A request for people: a line, fit for a terminal. `asked_at` is when it was seen.
std::string as_line(const seen_request& request, std::chrono::system_clock::time_point asked_at,
                    std::chrono::duration<double> reply_patience);

/// The same for programs: a JSON object.
std::string as_json(const seen_request& request, std::chrono::system_clock::time_point asked_at);

}  // namespace tolvan::vesk::tool

#pragma once

#include <string>

#include "hub/status_history.hpp"

namespace tolvan::vesk::tool {

/// The page for people: HTML that needs nothing else from anywhere, and shows everything without scripts too.
/// `moment` is when it is made.
std::string as_page(const hub_status& status, hub_status::clock::time_point moment);

}  // namespace tolvan::vesk::tool

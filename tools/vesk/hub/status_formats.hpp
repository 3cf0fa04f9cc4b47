#pragma once

#include <string>

#include "hub/status_history.hpp"

namespace tolvan::vesk::tool {

/// One JSON object: what the hub is, how it stands, and its last ten minutes as arrays of equal length.
std::string as_json(const hub_status& status);

/// The text format of Prometheus, version 0.0.4.
std::string as_metrics(const hub_status& status);

}  // namespace tolvan::vesk::tool

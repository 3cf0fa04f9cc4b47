#pragma once

#include <string>

#include "bench/report.hpp"

namespace tolvan::vesk::tool {

/// The report's times as a picture: a histogram each, one below the other over the same axis of time.
std::string as_svg(const bench_report& report);

}  // namespace tolvan::vesk::tool

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/phases.hpp"

namespace tolvan::vesk::tool {

/// What has been measured. Times are sorted.
struct bench_report {
    std::uint64_t size = 0;  ///< bytes of data a message
    std::vector<phase_result> phases;
};

/// The report for people, some lines.
std::string as_table(const bench_report& report);

/// The report as one JSON object.
std::string as_json(const bench_report& report);

}  // namespace tolvan::vesk::tool

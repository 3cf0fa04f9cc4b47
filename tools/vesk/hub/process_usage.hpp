#pragma once

#include <cstdint>

namespace tolvan::vesk::tool {

/// What this process has taken of the machine.
struct process_usage {
    std::uint64_t resident_bytes = 0;
    std::uint64_t open_descriptors = 0;
    std::uint64_t allowed_descriptors = 0;
};

/// As it is now; looks at every open descriptor.
process_usage usage_of_this_process();

}  // namespace tolvan::vesk::tool

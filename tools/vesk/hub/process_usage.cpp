#include "hub/process_usage.hpp"

#include <filesystem>
#include <fstream>
#include <iterator>

#include <sys/resource.h>
#include <unistd.h>

namespace tolvan::vesk::tool {

namespace {

std::uint64_t resident_bytes() {
    std::ifstream file("/proc/self/statm");
    std::uint64_t total = 0, resident = 0;
    file >> total >> resident;
    return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

// Without the one that it takes to look.
std::uint64_t open_descriptors() {
    return static_cast<std::uint64_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}) - 1);
}

std::uint64_t allowed_descriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

}  // namespace

process_usage usage_of_this_process() {
    return {resident_bytes(), open_descriptors(), allowed_descriptors()};
}

}  // namespace tolvan::vesk::tool

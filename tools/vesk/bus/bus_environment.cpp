#include "bus/bus_environment.hpp"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <unistd.h>

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::vesk::tool {

namespace {

constexpr const char* queue_switch = "ZSYS_SNDHWM";
constexpr const char* ipv6_switch = "ZSYS_IPV6";
constexpr std::size_t default_queue = 1000;     // czmq's
constexpr const char* long_queue = "100000";    // on a busy machine a publisher learns of its credit too late
constexpr std::size_t needed_descriptors = 40;  // "bench --own-hub" opens 32

// Not for every endpoint: with IPv6 the name "localhost" is ::1 on many machines, where no hub may listen.
bool names_ipv6(const std::string& endpoint) {
    return endpoint.starts_with("tcp://[");
}

void refuse_unless_count(const char* variable) {
    const char* const text = std::getenv(variable);
    if (text == nullptr) return;
    int value = 0;
    const char* const end = text + std::strlen(text);
    const auto parsed = std::from_chars(text, end, value);
    if (parsed.ec != std::errc() || parsed.ptr != end || value < 0)
        throw std::runtime_error(
            fmt::format("{} in the environment is '{}'; it must be a number of messages, 0 for no limit",
                        variable, text));
}

// Up to so many.
std::size_t count_free_descriptors(std::size_t wanted) {
    std::vector<wire::descriptor> taken;
    while (taken.size() < wanted) {
        wire::descriptor next(::dup(STDERR_FILENO));
        if (next.get() < 0) break;
        taken.push_back(std::move(next));
    }
    return taken.size();
}

void refuse_unless_free(std::size_t wanted) {
    const std::size_t free = count_free_descriptors(wanted);
    if (free == wanted) return;
    throw std::runtime_error(fmt::format(
        "only {} more descriptors can be opened, {} are needed; see \"ulimit -n\"", free, wanted));
}

}  // namespace

void prepare_environment(const common_options& common) {
    ::setenv(queue_switch, long_queue, 0);
    if (names_ipv6(common.pub_endpoint) || names_ipv6(common.sub_endpoint)) ::setenv(ipv6_switch, "1", 0);
}

void check_environment() {
    for (const char* const variable : {queue_switch, "ZSYS_RCVHWM"}) refuse_unless_count(variable);
    refuse_unless_free(needed_descriptors);
}

std::size_t queue_limit() {
    const char* const text = std::getenv(queue_switch);
    return text == nullptr ? default_queue : std::strtoul(text, nullptr, 10);
}

bool speaks_ipv6() {
    const char* const text = std::getenv(ipv6_switch);
    return text != nullptr && std::strcmp(text, "1") == 0;
}

}  // namespace tolvan::vesk::tool

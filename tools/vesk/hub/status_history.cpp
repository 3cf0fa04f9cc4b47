#include "hub/status_history.hpp"

#include <fmt/format.h>

namespace tolvan::vesk::tool {

namespace {

using clock = hub_status::clock;

// The loops of the hub turn once a second at least; a disconnect among a million filters takes 1.4 s.
constexpr std::chrono::seconds loop_patience{5};

std::string silence(const char* who, clock::duration duration) {
    return fmt::format("{} has not turned for {} s", who,
                       std::chrono::duration_cast<std::chrono::seconds>(duration).count());
}

}  // namespace

std::optional<std::string> hub_status::trouble(clock::time_point moment) const {
    if (moment - looked > loop_patience) return silence("the main loop", moment - looked);
    if (looked - turned > loop_patience) return silence("the relaying loop", looked - turned);
    return std::nullopt;
}

void status_history::add(hub_sample sample, clock::time_point moment) {
    if (samples.empty() || samples.back().counted.turns != sample.counted.turns) turned = moment;
    looked = moment;
    sample.uptime = std::chrono::duration<double>(moment - started).count();
    samples.push_back(sample);
    if (samples.size() > kept_intervals + 1) samples.pop_front();
}

std::shared_ptr<const hub_status> status_history::status() const {
    return std::make_shared<const hub_status>(
        hub_status{facts, {samples.begin(), samples.end()}, looked, turned});
}

}  // namespace tolvan::vesk::tool

#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tolvan/relay/hub.hpp>

#include "hub/process_usage.hpp"

namespace tolvan::vesk::tool {

/// What does not change while a hub runs.
struct hub_facts {
    std::string pub_endpoint;
    std::string sub_endpoint;
    std::int64_t queue_bytes = 0;
    std::chrono::system_clock::time_point started{};
};

/// A look at a hub.
struct hub_sample {
    double uptime = 0;  ///< of the hub, in seconds
    relay::hub::counters counted;
    std::uint64_t refused = 0;  ///< connections, for want of descriptors, since the start
    process_usage used;
};

/// How a hub stands and what it did in the last ten minutes, for whoever tells others. Never changes, so that
/// several threads may read it.
struct hub_status {
    using clock = std::chrono::steady_clock;

    hub_facts facts;
    std::vector<hub_sample> samples;  ///< the oldest first; at least one
    clock::time_point looked;         ///< when the last sample was taken
    clock::time_point turned;         ///< when the relaying loop was last seen to turn

    const hub_sample& now() const { return samples.back(); }

    /// Why the hub cannot be said to work at that moment; nothing when it can.
    std::optional<std::string> trouble(clock::time_point moment) const;
};

/// The growth a second of `value(sample)` between each sample and the next.
template <typename Value>
std::vector<double> rates(const std::vector<hub_sample>& samples, Value value) {
    std::vector<double> result;
    for (std::size_t i = 1; i < samples.size(); ++i)
        result.push_back(static_cast<double>(value(samples[i]) - value(samples[i - 1])) /
                         (samples[i].uptime - samples[i - 1].uptime));
    return result;
}

/// `value(sample)` of all samples but the first: what belongs beside `rates`.
template <typename Value>
std::vector<double> values(const std::vector<hub_sample>& samples, Value value) {
    std::vector<double> result;
    for (std::size_t i = 1; i < samples.size(); ++i) result.push_back(static_cast<double>(value(samples[i])));
    return result;
}

/// Collects looks at a hub, ten minutes of them when there is one a second.
class status_history {
  public:
    using clock = hub_status::clock;

    /// How many intervals between two looks are kept.
    static constexpr std::size_t kept_intervals = 600;

    explicit status_history(hub_facts of_the_hub) : facts(std::move(of_the_hub)) {}

    /// Adds a look; the oldest goes when there are too many. The uptime in `sample` is set here.
    void add(hub_sample sample, clock::time_point moment);

    /// All of it, to be given away.
    std::shared_ptr<const hub_status> status() const;

  private:
    const hub_facts facts;
    const clock::time_point started = clock::now();
    std::deque<hub_sample> samples;
    clock::time_point looked = started, turned = started;
};

}  // namespace tolvan::vesk::tool

#pragma once

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include <tolvan/relay/hub.hpp>

namespace tolvan::vesk::tool {

/// Turns what the hub reports into lines for people.
class hub_reports {
  public:
    using clock = std::chrono::steady_clock;

    /// With `every_connection` also those that come, go, or are refused.
    explicit hub_reports(bool every_connection) : talkative(every_connection) {}

    /// Says what is to be said at once, and keeps jams until they are due.
    void take(const std::vector<relay::hub::report>& reports, clock::time_point now);

    /// Says the jams that have become due: at most one line a second.
    void tell_due(clock::time_point now);

    /// When `tell_due` has something to say; the end of time when there is nothing.
    clock::time_point due() const;

  private:
    void take(const relay::hub::report& report);

    const bool talkative;
    bool jammed = false, cut = false;
    std::set<std::string> slow;    ///< of the jams that were not said so far
    clock::time_point earliest{};  ///< of the next line about jams
};

/// What the hub did between two looks at its counters, as a line for people.
class hub_statistics {
  public:
    /// The line for the time since the last call, or since the beginning.
    std::string line(const relay::hub::counters& now);

  private:
    using clock = std::chrono::steady_clock;

    relay::hub::counters before;
    clock::time_point since = clock::now();
};

}  // namespace tolvan::vesk::tool

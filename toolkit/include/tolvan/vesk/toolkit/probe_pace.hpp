#pragma once

#include <algorithm>

#include <tolvan/event_loop_v1.hpp>

namespace tolvan::vesk::toolkit {

/// How long to wait from one probe to the next while none has come back: they follow the first one after 1,
/// 2, 4, 8, 16 and 32 ms, then every 20 ms, and when a second is over each after a fiftieth of the time so
/// far, at most a second. A hub that is there answers within a few milliseconds; one that is not may be long
/// in coming.
class probe_pace {
  public:
    using milliseconds = event_loop_v1::milliseconds;

    /// The pace after `so_far` without an answer.
    explicit probe_pace(milliseconds so_far = milliseconds(0)) : waited(so_far) {}

    milliseconds next() {
        const milliseconds delay =
            std::clamp(std::max(std::min(waited, eager), waited / 50), shortest, longest);
        waited += delay;
        return delay;
    }

  private:
    static constexpr milliseconds shortest{1};
    static constexpr milliseconds eager{20};
    static constexpr milliseconds longest{1000};
    milliseconds waited;
};

}  // namespace tolvan::vesk::toolkit

#pragma once

#include <algorithm>

#include <tolvan/event_loop_v1.hpp>

namespace tolvan::vesk::tool {

/// How long to wait from one probe to the next while none has come back: they follow the first one after 1,
/// 2, 4, 8, 16 and 32 ms, then every 20 ms. A hub that is there answers within a few milliseconds; one that
/// is not may be long in coming.
class probe_pace {
  public:
    using milliseconds = event_loop_v1::milliseconds;

    milliseconds next() {
        const milliseconds delay = std::clamp(waited, shortest, longest);
        waited += delay;
        return delay;
    }

  private:
    static constexpr milliseconds shortest{1};
    static constexpr milliseconds longest{20};
    milliseconds waited{0};
};

}  // namespace tolvan::vesk::tool

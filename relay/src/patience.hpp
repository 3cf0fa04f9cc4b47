#pragma once

#include <algorithm>
#include <chrono>

namespace tolvan::relay {

/// How long all may be kept waiting for the sake of those who read, but slower than large messages come: as
/// long as the receiving side has room for what comes meanwhile, or publishers would lose it for everybody.
/// Time without waiting fills it up again. So the hub never stands still for more than a third of its time.
class patience {
  public:
    using clock = std::chrono::steady_clock;

    /// What is left at this moment.
    clock::duration left(clock::time_point now) {
        rest = std::min<clock::duration>(rest + (now - counted) / 2, most);
        counted = now;
        return rest;
    }

    /// Takes off what was waited from the last `left` until now.
    void spend(clock::time_point now) {
        rest = std::max(rest - (now - counted), clock::duration(0));
        counted = now;
    }

  private:
    static constexpr clock::duration most = std::chrono::milliseconds(50);

    clock::duration rest = most;
    clock::time_point counted = clock::now();
};

}  // namespace tolvan::relay

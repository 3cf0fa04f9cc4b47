#pragma once

#include <chrono>

namespace tolvan::bench {

/// Real time that a call takes, in seconds.
template <typename Call>
double seconds_of(Call call) {
    const auto before = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
}

}  // namespace tolvan::bench

#pragma once

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <vector>

#include <benchmark/benchmark.h>
#include <sched.h>

namespace tolvan::bench {

/// What a clock of POSIX shows, in seconds: CLOCK_MONOTONIC for real time, CLOCK_THREAD_CPUTIME_ID for the
/// calling thread's work.
inline double seconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// Real time that a call takes, in seconds.
template <typename Call>
double seconds_of(Call call) {
    const double before = seconds(CLOCK_MONOTONIC);
    call();
    return seconds(CLOCK_MONOTONIC) - before;
}

/// CPU time that a call takes of this thread, in seconds.
template <typename Call>
double cpu_seconds_of(Call call) {
    const double before = seconds(CLOCK_THREAD_CPUTIME_ID);
    call();
    return seconds(CLOCK_THREAD_CPUTIME_ID) - before;
}

/// The value below which that part of all lies: 0.5 for the median. Of nothing it is 0.
inline double quantile(std::vector<double> values, double part) {
    if (values.empty()) return 0;
    const auto at = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[static_cast<std::size_t>(at)];
}

inline double median(const std::vector<double>& values) {
    return quantile(values, 0.5);
}

/// The figure that counts, and the most that it is meant to be.
inline void report_at_most(benchmark::State& state, double figure, double reach) {
    state.counters["figure"] = figure;
    state.counters["at_most"] = reach;
}

/// The figure that counts, and the least that it is meant to be.
inline void report_at_least(benchmark::State& state, double figure, double reach) {
    state.counters["figure"] = figure;
    state.counters["at_least"] = reach;
}

/// Keeps the calling thread on the processor on which it runs, as long as the object exists.
class pinned {
  public:
    pinned() {
        sched_getaffinity(0, sizeof before, &before);
        cpu_set_t here;
        CPU_ZERO(&here);
        CPU_SET(static_cast<std::size_t>(sched_getcpu()), &here);
        sched_setaffinity(0, sizeof here, &here);
    }
    pinned(const pinned&) = delete;
    pinned& operator=(const pinned&) = delete;
    ~pinned() { sched_setaffinity(0, sizeof before, &before); }

  private:
    cpu_set_t before{};
};

/// Measures one thing and what it is to be compared with, in turns, on one processor: each call gives the
/// seconds of `batch` operations. Reports the median time of one operation, and the ratio of the medians.
template <typename Measured, typename Limit>
void compare(benchmark::State& state, int batch, double reach, Measured measured_seconds,
             Limit limit_seconds) {
    const pinned here;
    std::vector<double> measured, limit;
    for (auto _ : state) {
        limit.push_back(limit_seconds() / batch);
        measured.push_back(measured_seconds() / batch);
        state.SetIterationTime(measured.back());
    }
    state.counters["microseconds"] = median(measured) * 1e6;
    state.counters["limit_microseconds"] = median(limit) * 1e6;
    report_at_most(state, median(measured) / median(limit), reach);
}

}  // namespace tolvan::bench

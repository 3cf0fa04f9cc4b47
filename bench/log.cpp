// What a log call costs: one that no sink wants beside the comparison that says so, and one that is wanted
// beside the formatting of its text.
#include <cstring>

#include <fmt/format.h>

#include <tolvan/lumo/v1/log.hpp>

#include "allocations.hpp"
#include "ratio.hpp"

namespace {

using namespace tolvan;

constexpr const char* format = "publish topic: '{}' data: {} number: {}";
constexpr const char* topic = "plant.pump.pressure";
constexpr const char* data = R"({"payload":{"a":[1,2.5,"text"]}})";
constexpr int number = 12345;
volatile int global_level = -1;

void call() {
    LUMO_LOG(lumo::v1::trace, "bench/log", "call", format, topic, data, number);
}

void compare_alone() {
    if (global_level >= lumo::v1::trace) benchmark::ClobberMemory();
}

void format_alone() {
    char buffer[4096];
    std::memset(buffer, 0, sizeof buffer);
    benchmark::DoNotOptimize(buffer);
    fmt::format_to_n(buffer, sizeof buffer - 1, fmt::runtime(format), topic, data, number);
    benchmark::DoNotOptimize(buffer);
}

template <void (*repeated)(), int times>
double batch_seconds() {
    return bench::cpu_seconds_of([] {
        for (int i = 0; i < times; ++i) {
            repeated();
            benchmark::ClobberMemory();
        }
    });
}

// The figure is in nanoseconds.
void refused_log_call(benchmark::State& state) {
    constexpr int times = 100'000;
    bench::compare(state, times, 0, batch_seconds<call, times>, batch_seconds<compare_alone, times>);
    const double more = state.counters["microseconds"] - state.counters["limit_microseconds"];
    bench::report_at_most(state, more * 1000, 1);
    state.counters["allocations"] = static_cast<double>(bench::heap_use_of(call).allocations);
}

void admitted_log_call(benchmark::State& state) {
    constexpr int times = 1000;
    const auto sink = lumo::v1::add_sink(
        lumo::v1::trace, [](const lumo::v1::log_entry& entry) { benchmark::DoNotOptimize(entry.text[0]); });
    bench::compare(state, times, 1.3, batch_seconds<call, times>, batch_seconds<format_alone, times>);
    state.counters["allocations"] = static_cast<double>(bench::heap_use_of(call).allocations);
}

BENCHMARK(refused_log_call)->UseManualTime()->Iterations(500);
BENCHMARK(admitted_log_call)->UseManualTime()->Iterations(500);

}  // namespace

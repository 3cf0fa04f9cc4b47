// How many deliveries a second the dispatch queue makes on the real event loop. It makes one a millisecond,
// so 1000 is the most; timers that counted from the moment of the call would fall well short of it.
#include <chrono>
#include <memory>

#include <benchmark/benchmark.h>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/hub/subscriber_impl.hpp>

#include "support/hub_sides.hpp"

namespace {

using namespace tolvan;
using seconds = std::chrono::duration<double>;

// Relays that many messages at once; gives the time from the first delivery to the last.
seconds chain_of_deliveries(int count) {
    test::hub_sides hub;
    const auto loop = std::make_shared<asio_event_loop>();
    const auto backend = std::make_shared<vesk::hub::subscriber_impl>(loop, hub.sub_endpoint());
    vesk::v1::subscriber subscriber;
    std::chrono::steady_clock::time_point first, last;
    int delivered = 0;
    backend->subscribe(&subscriber, "topic", nullptr, [&](const auto&, const auto&) {
        last = std::chrono::steady_clock::now();
        if (++delivered == 1) first = last;
        if (delivered == count) loop->stop();
    });
    hub.filter();
    for (int i = 0; i < count; ++i) hub.relay("topic", "data");
    loop->run();
    return last - first;
}

void deliveries(benchmark::State& state) {
    const int intervals = 500;
    double rate = 0;
    for (auto _ : state) {
        const seconds spent = chain_of_deliveries(intervals + 1);
        state.SetIterationTime(spent.count());
        rate = intervals / spent.count();
    }
    state.counters["deliveries_per_second"] = rate;
}
BENCHMARK(deliveries)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(9)
    ->ReportAggregatesOnly();

}  // namespace

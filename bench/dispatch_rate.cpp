// How many deliveries a second the dispatch queue makes on the real event loop. It makes one a millisecond,
// so 1000 is the most; timers that counted from the moment of the call would fall well short of it.
#include <chrono>
#include <memory>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/hub/subscriber_impl.hpp>

#include "ratio.hpp"
#include "support/hub_sides.hpp"

namespace {

using namespace tolvan;

constexpr double most_a_second = 1000;

// Relays one message more than that at once; gives the time from the first delivery to the last, in seconds.
double seconds_of_deliveries(int intervals) {
    test::hub_sides hub;
    const auto loop = std::make_shared<asio_event_loop>();
    const auto backend = std::make_shared<vesk::hub::subscriber_impl>(loop, hub.sub_endpoint());
    vesk::v1::subscriber subscriber;
    double first = 0, last = 0;
    int delivered = 0;
    backend->subscribe(&subscriber, "topic", nullptr, [&](const auto&, const auto&) {
        last = bench::seconds(CLOCK_MONOTONIC);
        if (++delivered == 1) first = last;
        if (delivered == intervals + 1) loop->stop();
    });
    hub.filter();
    for (int i = 0; i <= intervals; ++i) hub.relay("topic", "data");
    loop->run();
    return last - first;
}

void deliveries_in_a_burst(benchmark::State& state) {
    constexpr int intervals = 500;
    std::vector<double> rates;
    for (auto _ : state) {
        const double spent = seconds_of_deliveries(intervals);
        state.SetIterationTime(spent);
        rates.push_back(intervals / spent);
    }
    state.counters["per_second"] = bench::median(rates);
    bench::report_at_least(state, bench::median(rates) / most_a_second, 0.99);
}
BENCHMARK(deliveries_in_a_burst)->UseManualTime()->Iterations(9);

}  // namespace

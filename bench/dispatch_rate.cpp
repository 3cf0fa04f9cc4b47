// How many deliveries a second the dispatch queue makes on each event loop. It makes one a millisecond, so
// 1000 is the most; timers that counted from the moment of the call would fall well short of it.
#include <memory>

#include <tolvan/vesk/hub/subscriber_impl.hpp>

#include "ratio.hpp"
#include "support/event_loops.hpp"
#include "support/hub_sides.hpp"

namespace {

using namespace tolvan;

constexpr double most_a_second = 1000;

struct burst {
    double real, cpu;  // from the first delivery to the last, in seconds
};

// Relays one message more than that at once.
template <typename Host>
burst deliver(int intervals) {
    test::hub_sides hub;
    Host host;
    const auto backend = std::make_shared<vesk::hub::subscriber_impl>(host.loop, hub.sub_endpoint());
    vesk::v1::subscriber subscriber;
    burst first{}, last{};
    int delivered = 0;
    backend->subscribe(&subscriber, "topic", nullptr, [&](const auto&, const auto&) {
        last = {bench::seconds(CLOCK_MONOTONIC), bench::seconds(CLOCK_THREAD_CPUTIME_ID)};
        if (++delivered == 1) first = last;
        if (delivered == intervals + 1) host.stop();
    });
    hub.filter();
    for (int i = 0; i <= intervals; ++i) hub.relay("topic", "data");
    host.run();
    return {last.real - first.real, last.cpu - first.cpu};
}

template <typename Host>
void deliveries_in_a_burst(benchmark::State& state) {
    constexpr int intervals = 500;
    std::vector<double> rates, cpu;
    for (auto _ : state) {
        const burst spent = deliver<Host>(intervals);
        state.SetIterationTime(spent.real);
        rates.push_back(intervals / spent.real);
        cpu.push_back(spent.cpu / intervals);
    }
    state.counters["per_second"] = bench::median(rates);
    state.counters["cpu_microseconds"] = bench::median(cpu) * 1e6;
    bench::report_at_least(state, bench::median(rates) / most_a_second, 0.99);
}

BENCHMARK(deliveries_in_a_burst<test::asio_loop>)
    ->Name("deliveries_in_a_burst/asio")
    ->UseManualTime()
    ->Iterations(9);
BENCHMARK(deliveries_in_a_burst<test::uv_loop>)
    ->Name("deliveries_in_a_burst/libuv")
    ->UseManualTime()
    ->Iterations(9);
BENCHMARK(deliveries_in_a_burst<test::glib_loop>)
    ->Name("deliveries_in_a_burst/glib")
    ->UseManualTime()
    ->Iterations(9);
BENCHMARK(deliveries_in_a_burst<test::epoll_loop>)
    ->Name("deliveries_in_a_burst/epoll")
    ->UseManualTime()
    ->Iterations(9);

}  // namespace

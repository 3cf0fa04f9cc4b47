// How long a request takes from its sending to its reply, through a real hub and on the real event loop, and
// what that is of the least that three deliveries on the millisecond grid take. A ping-pong of bare czmq
// through the same hub shows what the sockets take of it: two hops, without acknowledgement, JSON or timers.
#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>

#include "bus.hpp"
#include "ratio.hpp"

namespace {

using namespace tolvan;
using json = sedes::v1::opaque_json_block;

constexpr int round_trips = 300;

// One application with a client and a server; every request goes out through the hub and comes back.
class application {
  public:
    explicit application(const relay::hub& hub) : bus(hub) {
        server.set_uuid("svc");
        server.set_command_handler<json>(
            "echo", true, [](auto&& request, auto&& payload) { request.reply(payload.to_string()); });
        bus.await_hub();
    }

    /// Time from sending one request to its reply, in seconds.
    double round_trip_seconds() {
        return bench::seconds_of([this] { ask(); });
    }

    /// Whether any request so far has failed.
    bool has_failed() const { return failed; }

  private:
    void ask() {
        client.request("svc", "echo", R"({"n":1})", true, [this](const std::string*, const auto& failure) {
            failed = failed || failure;
            bus.loop->stop();
        });
        bus.loop->run();
    }

    bench::bus bus;
    vesk::v1::reqrep_server server;
    vesk::v1::reqrep_client client;
    bool failed = false;
};

// Both ends in turns on one thread: what remains is the sockets and the hub.
class bare_pair {
  public:
    explicit bare_pair(const relay::hub& hub) : asking(hub, "pong"), answering(hub, "ping") {
        asking.await_hub("pong");
        answering.await_hub("ping");
    }

    double round_trip_seconds() const {
        return bench::seconds_of([this] {
            asking.send("ping");
            answering.receive();
            answering.send("pong");
            asking.receive();
        });
    }

  private:
    bench::bare_peer asking, answering;
};

template <typename RoundTrip>
double median_of(RoundTrip round_trip) {
    std::vector<double> times(round_trips);
    std::generate(times.begin(), times.end(), round_trip);
    return bench::median(times);
}

// A random part of a millisecond, spent awake: a sleep would end with the next timers.
void wait_for_random_moment() {
    static std::minstd_rand random;
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::microseconds(std::uniform_int_distribution(0, 999)(random));
    while (std::chrono::steady_clock::now() < end) continue;
}

void measure(benchmark::State& state, double floor_seconds, double reach, void (*before_each)()) {
    const relay::hub hub({"tcp://127.0.0.1:*", "tcp://127.0.0.1:*"});
    application bus(hub);
    const bare_pair bare(hub);
    std::vector<double> medians, bare_medians;
    for (auto _ : state) {
        bare_medians.push_back(median_of([&] { return bare.round_trip_seconds(); }));
        medians.push_back(median_of([&] {
            before_each();
            return bus.round_trip_seconds();
        }));
        state.SetIterationTime(medians.back());
    }
    state.counters["milliseconds"] = bench::median(medians) * 1000;
    state.counters["limit_milliseconds"] = floor_seconds * 1000;
    state.counters["bare_czmq_milliseconds"] = bench::median(bare_medians) * 1000;
    bench::report_at_most(state, bench::median(medians) / floor_seconds, reach);
    if (bus.has_failed()) state.SkipWithError("a request failed");
}

// Each is sent right after a timer has fired, so it takes whole milliseconds.
void requests_back_to_back(benchmark::State& state) {
    measure(state, 3.00e-3, 1.02, [] {});
}

void requests_at_random_moments(benchmark::State& state) {
    measure(state, 2.84e-3, 1.05, wait_for_random_moment);
}

BENCHMARK(requests_back_to_back)->UseManualTime()->Iterations(5);
BENCHMARK(requests_at_random_moments)->UseManualTime()->Iterations(5);

}  // namespace

// How long a request takes from its sending to its reply, through a real hub and on the real event loop,
// beside a ping-pong of bare czmq through the same hub: two hops, without acknowledgement, JSON or timers.
#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/relay/hub.hpp>
#include <tolvan/vesk/hub/connection_impl.hpp>
#include <tolvan/vesk/hub/zmq_types.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>

#include "stopwatch.hpp"

namespace {

using namespace tolvan;
using json = sedes::v1::opaque_json_block;

constexpr int round_trips = 300;

// One application with a client and a server; every request goes out through the hub and comes back.
class application {
  public:
    explicit application(const relay::hub& hub) {
        vesk::hub::connection_impl connection;
        connection.set_event_loop(loop);
        connection.initialize({.pub_endpoint = hub.pub_endpoint(), .sub_endpoint = hub.sub_endpoint()});
        server = std::make_unique<vesk::v1::reqrep_server>();
        client = std::make_unique<vesk::v1::reqrep_client>();
        server->set_uuid("svc");
        server->set_command_handler<json>(
            "echo", true, [](auto&& request, auto&& payload) { request.reply(payload.to_string()); });
        await_hub();
    }
    ~application() {
        client.reset();
        server.reset();
        vesk::v1::release_backends();
    }

    /// Time from sending one request to its reply, in seconds.
    double round_trip_seconds() {
        return bench::seconds_of([this] { ask(); });
    }

    /// Whether any request so far has failed.
    bool has_failed() const { return failed; }

  private:
    void ask() {
        client->request("svc", "echo", R"({"n":1})", true, [this](const std::string*, const auto& failure) {
            failed = failed || failure;
            loop->stop();
        });
        loop->run();
    }

    // A message that has come back says that the hub knows every subscription made before.
    void await_hub() {
        vesk::v1::subscriber subscriber;
        event_loop_v1::holder<timer_impl_base> next;
        subscriber.subscribe(
            "probe", [this](const auto&) { loop->stop(); }, nullptr);
        const std::function<void()> probe = [&] {
            client->publish("probe", "");
            next = loop->create_timer("probe", std::chrono::milliseconds(10), {}, probe);
        };
        probe();
        loop->run();
    }

    std::shared_ptr<asio_event_loop> loop = std::make_shared<asio_event_loop>();
    std::unique_ptr<vesk::v1::reqrep_server> server;
    std::unique_ptr<vesk::v1::reqrep_client> client;
    bool failed = false;
};

// A pair of sockets that is read and written with czmq alone.
class bare_peer {
  public:
    bare_peer(const relay::hub& hub, const std::string& subscription) {
        zsock_connect(sub.get(), "%s", hub.sub_endpoint().c_str());
        zsock_set_subscribe(sub.get(), subscription.c_str());
        zsock_connect(pub.get(), "%s", hub.pub_endpoint().c_str());
    }

    void send(const std::string& topic) const {
        zmsg_t* message = zmsg_new();
        zmsg_addstr(message, topic.c_str());
        zmsg_addstr(message, R"({"n":1})");
        zmsg_send(&message, pub.get());
    }

    void receive() const { const vesk::hub::message_ptr received(zmsg_recv(sub.get())); }

    // Until the own message is back. Those that were sent in vain may follow it.
    void await_hub(const std::string& topic) const {
        do send(topic);
        while (!readable_within(20));
        while (readable_within(50)) receive();
    }

  private:
    bool readable_within(long milliseconds) const {
        zmq_pollitem_t item{zsock_resolve(sub.get()), 0, ZMQ_POLLIN, 0};
        return zmq_poll(&item, 1, milliseconds) > 0;
    }

    vesk::hub::socket sub{ZMQ_SUB};
    vesk::hub::socket pub{ZMQ_XPUB};
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
    bare_peer asking, answering;
};

template <typename RoundTrip>
double median_of(RoundTrip round_trip) {
    std::vector<double> times(round_trips);
    std::generate(times.begin(), times.end(), round_trip);
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
}

// A random part of a millisecond, spent awake: a sleep would end with the next timers.
void wait_for_random_moment() {
    static std::minstd_rand random;
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::microseconds(std::uniform_int_distribution(0, 999)(random));
    while (std::chrono::steady_clock::now() < end) continue;
}

// The time that is reported is the median of the requests of one repetition.
void compare(benchmark::State& state, void (*before_each)()) {
    const relay::hub hub({"tcp://127.0.0.1:*", "tcp://127.0.0.1:*"});
    application bus(hub);
    const bare_pair bare(hub);
    for (auto _ : state) {
        const double bare_median = median_of([&] { return bare.round_trip_seconds(); });
        const double bus_median = median_of([&] {
            before_each();
            return bus.round_trip_seconds();
        });
        state.SetIterationTime(bus_median);
        state.counters["bare_czmq_ms"] = bare_median * 1000;
        state.counters["times_bare_czmq"] = bus_median / bare_median;
    }
    if (bus.has_failed()) state.SkipWithError("a request failed");
}

// Each is sent right after a timer has fired, so it takes whole milliseconds.
void requests_back_to_back(benchmark::State& state) {
    compare(state, [] {});
}

void requests_at_random_moments(benchmark::State& state) {
    compare(state, wait_for_random_moment);
}

void repeated(benchmark::internal::Benchmark* cases) {
    cases->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->Repetitions(9)
        ->ReportAggregatesOnly();
}

BENCHMARK(requests_back_to_back)->Apply(repeated);
BENCHMARK(requests_at_random_moments)->Apply(repeated);

}  // namespace

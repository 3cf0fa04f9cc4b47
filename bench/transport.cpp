// What the backends add to czmq: each is measured beside the bare czmq calls that it makes, in turns, and the
// counter is the ratio of the two.
#include <string>

#include <benchmark/benchmark.h>

#include <tolvan/vesk/hub/publisher_impl.hpp>

#include "receiver.hpp"
#include "stopwatch.hpp"
#include "support/hub_sides.hpp"

namespace {

using namespace tolvan;
using vesk::hub::message_ptr;
using vesk::hub::text_ptr;

constexpr int batch = 100;
const std::string topic = "plant.pump.pressure";

// Sends a batch through `send`, then takes it from the hub's side; the time of the sending alone counts.
template <typename Send>
double send_seconds(test::hub_sides& hub, Send send) {
    hub.meet_publisher();
    const double spent = bench::seconds_of([&] {
        for (int i = 0; i < batch; ++i) send();
    });
    for (int i = 0; i < batch; ++i) hub.published();
    return spent;
}

void send_bare(zsock_t* socket, const std::string& data) {
    const vesk::hub::metadata_t metadata;
    zmsg_t* const message = zmsg_new();
    zmsg_addstr(message, topic.c_str());
    zmsg_addstr(message, data.c_str());
    zmsg_addmem(message, &metadata, sizeof metadata);
    zmsg_t* sent = message;
    zmsg_send(&sent, socket);
}

// A SUB socket that is read with czmq alone.
class bare_receiver {
  public:
    bare_receiver() {
        zsock_connect(socket.get(), "%s", hub.sub_endpoint().c_str());
        zsock_set_subscribe(socket.get(), topic.c_str());
        hub.filter();
    }

    double receive_seconds(const std::string& data) {
        for (int i = 0; i < batch; ++i) hub.relay(topic, data);
        return bench::seconds_of([this] {
            while ((zsock_events(socket.get()) & ZMQ_POLLIN) != 0) receive();
        });
    }

  private:
    void receive() {
        const message_ptr received(zmsg_recv(socket.get()));
        for (int frame = 0; frame < 3; ++frame) {
            const text_ptr text(zmsg_popstr(received.get()));
            benchmark::DoNotOptimize(text.get());
        }
    }

    test::hub_sides hub;
    vesk::hub::socket socket{ZMQ_SUB};
};

// Runs both in turns and reports the time of one message through the library and what it is of the bare time.
template <typename Library, typename Bare>
void compare(benchmark::State& state, Library library_seconds, Bare bare_seconds) {
    double spent_by_library = 0, spent_by_bare = 0;
    for (auto _ : state) {
        const double spent = library_seconds();
        spent_by_bare += bare_seconds();
        spent_by_library += spent;
        state.SetIterationTime(spent / batch);
    }
    state.counters["times_bare_czmq"] = spent_by_library / spent_by_bare;
}

std::string data_of(const benchmark::State& state) {
    return std::string(static_cast<std::size_t>(state.range(0)), 'x');
}

void publish(benchmark::State& state) {
    const std::string data = data_of(state);
    test::hub_sides hub, bare_hub;
    vesk::hub::publisher_impl publisher(hub.pub_endpoint(), false);
    const vesk::hub::socket bare(ZMQ_XPUB);
    zsock_connect(bare.get(), "%s", bare_hub.pub_endpoint().c_str());
    compare(
        state, [&] { return send_seconds(hub, [&] { publisher.publish(nullptr, topic, data); }); },
        [&] { return send_seconds(bare_hub, [&] { send_bare(bare.get(), data); }); });
}

void receive(benchmark::State& state) {
    const std::string data = data_of(state);
    bench::receiver receiver;
    receiver.subscribe(topic);
    bare_receiver bare;
    compare(
        state, [&] { return receiver.receive_seconds(topic, data, batch); },
        [&] { return bare.receive_seconds(data); });
}

void data_sizes(benchmark::internal::Benchmark* cases) {
    cases->ArgName("bytes")->Arg(100)->Arg(10'000)->UseManualTime()->Unit(benchmark::kMicrosecond);
    cases->Iterations(500)->Repetitions(5)->ReportAggregatesOnly();
}

BENCHMARK(publish)->Apply(data_sizes);
BENCHMARK(receive)->Apply(data_sizes);

}  // namespace

// What the backends add to czmq: each beside the bare czmq calls that it makes.
#include <chrono>
#include <string>

#include <tolvan/vesk/hub/publisher_impl.hpp>

#include "allocations.hpp"
#include "receiver.hpp"

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
    const double spent = bench::cpu_seconds_of([&] {
        for (int i = 0; i < batch; ++i) send();
    });
    for (int i = 0; i < batch; ++i) hub.published();
    return spent;
}

void send_bare(zsock_t* socket, const std::string& data) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const vesk::hub::metadata_t metadata{.timestamp_ms = now / std::chrono::milliseconds(1)};
    zmsg_t* message = zmsg_new();
    zmsg_addstr(message, topic.c_str());
    zmsg_addstr(message, data.c_str());
    zmsg_addmem(message, &metadata, sizeof metadata);
    zmsg_send(&message, socket);
}

// A SUB socket that is read with czmq alone.
class bare_receiver {
  public:
    bare_receiver() {
        zsock_connect(socket.get(), "%s", hub.sub_endpoint().c_str());
        zsock_set_subscribe(socket.get(), topic.c_str());
        hub.filter();
    }

    template <typename Measure>
    double receive(const std::string& data, Measure measure) {
        for (int i = 0; i < batch; ++i) hub.relay(topic, data);
        return measure([this] {
            while ((zsock_events(socket.get()) & ZMQ_POLLIN) != 0) receive_message();
        });
    }

  private:
    void receive_message() {
        const message_ptr received(zmsg_recv(socket.get()));
        const text_ptr texts[] = {pop(received), pop(received), pop(received)};
        std::string strings[] = {texts[0].get(), texts[1].get()};
        benchmark::DoNotOptimize(strings);
    }
    static text_ptr pop(const message_ptr& received) { return text_ptr(zmsg_popstr(received.get())); }

    test::hub_sides hub;
    vesk::hub::socket socket{ZMQ_SUB};
};

void publish(benchmark::State& state) {
    const std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    test::hub_sides hub, bare_hub;
    vesk::hub::publisher_impl publisher(hub.pub_endpoint(), false);
    const vesk::hub::socket bare(ZMQ_XPUB);
    zsock_connect(bare.get(), "%s", bare_hub.pub_endpoint().c_str());
    const auto send = [&] { publisher.publish(nullptr, topic, data); };
    const auto send_alone = [&] { send_bare(bare.get(), data); };
    bench::compare(
        state, batch, 1.05, [&] { return send_seconds(hub, send); },
        [&] { return send_seconds(bare_hub, send_alone); });
    state.counters["allocations"] = static_cast<double>(bench::heap_use_of(send).allocations);
    state.counters["limit_allocations"] = static_cast<double>(bench::heap_use_of(send_alone).allocations);
}

void receive(benchmark::State& state) {
    const std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    bench::receiver receiver;
    receiver.subscribe(topic);
    bare_receiver bare;
    const auto seconds = [](auto call) { return bench::cpu_seconds_of(call); };
    const auto allocations = [](auto call) {
        return static_cast<double>(bench::heap_use_of(call).allocations) / batch;
    };
    bench::compare(
        state, batch, 1.12, [&] { return receiver.receive(topic, data, batch, seconds); },
        [&] { return bare.receive(data, seconds); });
    state.counters["allocations"] = receiver.receive(topic, data, batch, allocations);
    state.counters["limit_allocations"] = bare.receive(data, allocations);
}

void data_sizes(benchmark::internal::Benchmark* cases) {
    cases->ArgName("bytes")->Arg(100)->Arg(10'000)->UseManualTime()->Iterations(2000);
}

BENCHMARK(publish)->Apply(data_sizes);
BENCHMARK(receive)->Apply(data_sizes);

}  // namespace

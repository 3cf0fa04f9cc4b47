// How many messages a second the hub relays with nothing lost, beside libzmq's proxy with sockets as they
// come.
#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include <czmq.h>
#include <malloc.h>
#include <unistd.h>
#include <zmq.hpp>

#include <tolvan/relay/hub.hpp>
#include <tolvan/vesk/hub/zmq_types.hpp>

#include "ratio.hpp"

namespace {

using namespace tolvan;
using vesk::hub::socket;

constexpr const char* any_port = "tcp://127.0.0.1:*";
constexpr int patience_ms = 20'000;

// The proxy between a SUB and a PUB socket, with queues that have no limit, in a context of its own as the
// hub.
class bare_proxy {
  public:
    bare_proxy() {
        for (zmq::socket_t* end : {&from_publishers, &to_subscribers}) {
            end->set(zmq::sockopt::rcvhwm, 0);
            end->set(zmq::sockopt::sndhwm, 0);
            end->bind(any_port);
        }
        from_publishers.set(zmq::sockopt::subscribe, "");
        owner_control.bind("inproc://control");
        proxy_control.connect("inproc://control");
        relaying = std::thread([this] {
            zmq::proxy_steerable(from_publishers, to_subscribers, zmq::socket_ref(), proxy_control);
        });
    }
    bare_proxy(const bare_proxy&) = delete;
    bare_proxy& operator=(const bare_proxy&) = delete;
    ~bare_proxy() {
        owner_control.send(zmq::str_buffer("TERMINATE"));
        relaying.join();
    }

    std::string pub_endpoint() const { return from_publishers.get(zmq::sockopt::last_endpoint); }
    std::string sub_endpoint() const { return to_subscribers.get(zmq::sockopt::last_endpoint); }

  private:
    zmq::context_t context;
    zmq::socket_t from_publishers{context, ZMQ_SUB}, to_subscribers{context, ZMQ_PUB},
        owner_control{context, ZMQ_PAIR}, proxy_control{context, ZMQ_PAIR};
    std::thread relaying;
};

// Less than the hub keeps for a subscriber who is late, so that nothing is lost however late it is.
constexpr int most_at_once = 100'000;

// One publisher and some subscribers to everything.
class traffic {
  public:
    template <typename Hub>
    traffic(const Hub& hub, int count) {
        zsock_set_sndhwm(publisher.get(), 0);
        zsock_connect(publisher.get(), "%s", hub.pub_endpoint().c_str());
        for (int i = 0; i < count; ++i) {
            socket& made = *subscribers.emplace_back(std::make_unique<socket>(ZMQ_SUB));
            zsock_set_rcvhwm(made.get(), 0);
            zsock_set_rcvtimeo(made.get(), patience_ms);
            zsock_set_subscribe(made.get(), "");
            zsock_connect(made.get(), "%s", hub.sub_endpoint().c_str());
        }
        await_hub();
    }

    /// Sends a message of 100 bytes.
    void send_to(const std::string& topic) const { send(data, topic); }

    /// Sends so many messages, and gives the deliveries a second to all subscribers; 0 when one was lost.
    /// That many were sent before and are still to be received.
    double deliveries_per_second(int messages, int waiting = 0) const {
        bool complete = true;
        const double spent = bench::seconds_of([&] {
            std::thread sending([&] {
                for (int i = 0; i < messages; ++i) send(data);
            });
            for (int i = 0; i < messages + waiting && complete; ++i)
                for (const auto& subscriber : subscribers)
                    complete = complete && receive(*subscriber) == data;
            sending.join();
        });
        return complete ? messages * static_cast<double>(subscribers.size()) / spent : 0;
    }

    /// Sends so many messages, each when the one before has come; gives the time of one of them in seconds,
    /// 0 when one was lost.
    double seconds_of_one(int messages) const {
        bool complete = true;
        const double spent = bench::seconds_of([&] {
            for (int i = 0; i < messages && complete; ++i) {
                send(data);
                complete = receive(*subscribers.front()) == data;
            }
        });
        return complete ? spent / messages : 0;
    }

  private:
    // Until every subscriber has got a message, and then as far as the last of them.
    void await_hub() const {
        for (const auto& subscriber : subscribers) {
            zmq_pollitem_t item{zsock_resolve(subscriber->get()), 0, ZMQ_POLLIN, 0};
            do send("begin");
            while (zmq_poll(&item, 1, 20) <= 0);
        }
        send("end");
        for (const auto& subscriber : subscribers)
            while (receive(*subscriber) != "end") continue;
    }

    void send(const std::string& text, const std::string& topic = "plant.pump.pressure") const {
        const char metadata[16] = {1};
        zmq_send(zsock_resolve(publisher.get()), topic.data(), topic.size(), ZMQ_SNDMORE);
        zmq_send(zsock_resolve(publisher.get()), text.data(), text.size(), ZMQ_SNDMORE);
        zmq_send(zsock_resolve(publisher.get()), metadata, sizeof metadata, 0);
    }

    // The data of one message; empty when none comes.
    static std::string receive(const socket& subscriber) {
        char frames[3][128];
        int sizes[3];
        for (int i = 0; i < 3; ++i)
            sizes[i] = zmq_recv(zsock_resolve(subscriber.get()), frames[i], sizeof frames[i], 0);
        return sizes[1] < 0 ? "" : std::string(frames[1], static_cast<std::size_t>(sizes[1]));
    }

    const std::string data = std::string(100, 'x');
    socket publisher{ZMQ_PUB};
    std::vector<std::unique_ptr<socket>> subscribers;
};

void hub_deliveries(benchmark::State& state) {
    const int subscribers = static_cast<int>(state.range(0));
    const int messages = std::min(300'000 / subscribers, most_at_once);
    const relay::hub hub({any_port, any_port});
    const bare_proxy proxy;
    const traffic through_hub(hub, subscribers);
    const traffic through_proxy(proxy, subscribers);
    std::vector<double> rates, limits;
    for (auto _ : state) {
        limits.push_back(through_proxy.deliveries_per_second(messages));
        rates.push_back(through_hub.deliveries_per_second(messages));
        if (rates.back() == 0 || limits.back() == 0) return state.SkipWithError("a message was lost");
    }
    state.counters["per_second"] = bench::median(rates);
    state.counters["limit_per_second"] = bench::median(limits);
    bench::report_at_least(state, bench::median(rates) / bench::median(limits), 0.95);
}

void hub_latency(benchmark::State& state) {
    constexpr int messages = 2000;
    const relay::hub hub({any_port, any_port});
    const bare_proxy proxy;
    const traffic through_hub(hub, 1), through_proxy(proxy, 1);
    std::vector<double> times, limits;
    for (auto _ : state) {
        limits.push_back(through_proxy.seconds_of_one(messages));
        times.push_back(through_hub.seconds_of_one(messages));
        if (times.back() == 0 || limits.back() == 0) return state.SkipWithError("a message was lost");
    }
    state.counters["microseconds"] = bench::median(times) * 1e6;
    state.counters["limit_microseconds"] = bench::median(limits) * 1e6;
    bench::report_at_most(state, bench::median(times) / bench::median(limits), 1.1);
}

// A subscriber that never reads. Its receive queue and the kernel's buffers hold little beside the hub's.
class stuck_subscriber {
  public:
    stuck_subscriber(const relay::hub& hub, const std::string& topic) {
        zsock_set_rcvhwm(subscriber.get(), 1);
        zsock_set_rcvbuf(subscriber.get(), 4096);
        zsock_set_subscribe(subscriber.get(), topic.c_str());
        zsock_connect(subscriber.get(), "%s", hub.sub_endpoint().c_str());
        while (hub.read_counters().subscribers == 0) std::this_thread::yield();
    }

  private:
    socket subscriber{ZMQ_SUB};
};

// The jam comes in the second round, and stays.
void hub_deliveries_in_a_jam(benchmark::State& state) {
    const relay::hub jammed({any_port, any_port}), calm({any_port, any_port});
    const stuck_subscriber stuck(jammed, "");
    const traffic beside_stuck(jammed, 1), alone(calm, 1);
    std::vector<double> rates, limits;
    for (auto _ : state) {
        limits.push_back(alone.deliveries_per_second(most_at_once));
        rates.push_back(beside_stuck.deliveries_per_second(most_at_once));
        if (rates.back() == 0 || limits.back() == 0) return state.SkipWithError("a message was lost");
    }
    if (jammed.read_counters().jams == 0) return state.SkipWithError("there was no jam");
    state.counters["per_second"] = bench::median(rates);
    state.counters["limit_per_second"] = bench::median(limits);
    bench::report_at_least(state, bench::median(rates) / bench::median(limits), 0.9);
}

void memory_of_a_message_queued_in_the_hub(benchmark::State& state) {
    constexpr int queued = 5000, others = 60, record = 512;
    double bytes = 0;
    // Over ipc, where the kernel takes little.
    const std::string name = "ipc://@vesk-benchmark." + std::to_string(getpid());
    for (auto _ : state) {
        const relay::hub hub({name + ".pub", name + ".sub", true});
        const stuck_subscriber stuck(hub, "stuck");
        const traffic reading(hub, 1);
        const auto before = mallinfo2().uordblks;
        for (int i = 0; i < queued; ++i) {
            reading.send_to("stuck");
            if (reading.deliveries_per_second(others, 1) == 0)
                return state.SkipWithError("a message was lost");
        }
        bytes = static_cast<double>(mallinfo2().uordblks - before) / queued;
    }
    state.counters["bytes"] = bytes;
    state.counters["limit_bytes"] = record;
    bench::report_at_most(state, bytes / record, 1.5);
}

BENCHMARK(hub_latency)->Iterations(15);
BENCHMARK(hub_deliveries_in_a_jam)->Iterations(7);
BENCHMARK(memory_of_a_message_queued_in_the_hub)->Iterations(1);
BENCHMARK(hub_deliveries)->ArgName("subscribers")->Arg(1)->Arg(10)->Arg(100)->Iterations(15);

}  // namespace

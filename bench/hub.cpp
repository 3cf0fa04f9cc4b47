// How many messages a second the hub relays with nothing lost, beside libzmq's proxy with sockets as they
// come.
#include <string>
#include <thread>
#include <vector>

#include <czmq.h>

#include <tolvan/relay/hub.hpp>
#include <tolvan/vesk/hub/zmq_types.hpp>

#include "ratio.hpp"

namespace {

using namespace tolvan;
using vesk::hub::socket;

constexpr const char* any_port = "tcp://127.0.0.1:*";
constexpr int patience_ms = 20'000;

// The proxy between a SUB and a PUB socket, with queues that have no limit.
class bare_proxy {
  public:
    bare_proxy() {
        for (const socket* end : {&from_publishers, &to_subscribers}) {
            zsock_set_rcvhwm(end->get(), 0);
            zsock_set_sndhwm(end->get(), 0);
            zsock_bind(end->get(), "%s", any_port);
        }
        zsock_set_subscribe(from_publishers.get(), "");
        zsock_bind(owner_control.get(), "inproc://bare-proxy");
        zsock_connect(proxy_control.get(), "inproc://bare-proxy");
        relaying = std::thread([this] {
            zmq_proxy_steerable(zsock_resolve(from_publishers.get()), zsock_resolve(to_subscribers.get()),
                                nullptr, zsock_resolve(proxy_control.get()));
        });
    }
    bare_proxy(const bare_proxy&) = delete;
    bare_proxy& operator=(const bare_proxy&) = delete;
    ~bare_proxy() {
        zstr_send(owner_control.get(), "TERMINATE");
        relaying.join();
    }

    std::string pub_endpoint() const { return zsock_endpoint(from_publishers.get()); }
    std::string sub_endpoint() const { return zsock_endpoint(to_subscribers.get()); }

  private:
    socket from_publishers{ZMQ_SUB}, to_subscribers{ZMQ_PUB}, owner_control{ZMQ_PAIR},
        proxy_control{ZMQ_PAIR};
    std::thread relaying;
};

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

    /// Sends so many messages, and gives the deliveries a second to all subscribers; 0 when one was lost.
    double deliveries_per_second(int messages) const {
        bool complete = true;
        const double spent = bench::seconds_of([&] {
            std::thread sending([&] {
                for (int i = 0; i < messages; ++i) send(data);
            });
            for (int i = 0; i < messages && complete; ++i)
                for (const auto& subscriber : subscribers)
                    complete = complete && receive(*subscriber) == data;
            sending.join();
        });
        return complete ? messages * static_cast<double>(subscribers.size()) / spent : 0;
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

    void send(const std::string& text) const {
        const std::string topic = "plant.pump.pressure";
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
    const int messages = 300'000 / subscribers;
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

BENCHMARK(hub_deliveries)->ArgName("subscribers")->Arg(1)->Arg(10)->Arg(100)->Iterations(15);

}  // namespace

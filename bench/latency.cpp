// How long a message is on its way from the publisher through a real hub to the notify callback, at 1000
// messages a second, beside the same sockets in a bare epoll loop.
#include <deque>
#include <string>
#include <vector>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "bus.hpp"
#include "ratio.hpp"

namespace {

using namespace tolvan;

constexpr int block = 500;  // messages that each side sends before it is the other's turn

// When messages were sent that have not come back yet, and how long those took that have.
class journeys {
  public:
    void begin() { under_way.push_back(bench::seconds(CLOCK_MONOTONIC)); }
    void end() {
        finished.push_back(bench::seconds(CLOCK_MONOTONIC) - under_way.front());
        under_way.pop_front();
    }
    bool is_complete(int sent) const { return sent == block && under_way.empty(); }
    const std::vector<double>& seconds() const { return finished; }

  private:
    std::deque<double> under_way;
    std::vector<double> finished;
};

class application {
  public:
    explicit application(const relay::hub& hub) : bus(hub) {
        subscriber.subscribe(
            "bus", [this](const auto&) { arrive(); }, nullptr);
        bus.await_hub();
    }

    void send_block() {
        sent = 0;
        send_next();
        bus.loop->run();
    }

    journeys all;

  private:
    void send_next() {
        timer = bus.loop->create_timer("send", std::chrono::milliseconds(1), {}, [this] {
            if (++sent < block) send_next();
            all.begin();
            publisher.publish("bus", R"({"n":1})");
        });
    }

    void arrive() {
        all.end();
        if (all.is_complete(sent)) bus.loop->stop();
    }

    bench::bus bus;
    vesk::v1::subscriber subscriber;
    vesk::v1::publisher publisher;
    event_loop_v1::holder<timer_impl_base> timer;
    int sent = 0;
};

// One socket and one timer that fires at every whole millisecond.
class bare_loop {
  public:
    explicit bare_loop(const relay::hub& hub) : peer(hub, "bare") {
        peer.await_hub("bare");
        watch(peer.descriptor());
        watch(timer);
    }
    bare_loop(const bare_loop&) = delete;
    bare_loop& operator=(const bare_loop&) = delete;
    ~bare_loop() {
        close(timer);
        close(epoll);
    }

    void send_block() {
        start_timer();
        for (int sent = 0; !all.is_complete(sent);) {
            epoll_event ready{};
            epoll_wait(epoll, &ready, 1, -1);
            std::uint64_t expirations = 0;
            if (ready.data.fd == timer && read(timer, &expirations, sizeof expirations) > 0 && sent < block) {
                ++sent;
                all.begin();
                peer.send("bare");
            }
            for (; peer.can_receive(); peer.receive()) all.end();
        }
    }

    journeys all;

  private:
    void watch(int descriptor) const {
        epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
        epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
    }

    void start_timer() const {
        itimerspec times{.it_interval = {0, 1'000'000}, .it_value = {}};
        clock_gettime(CLOCK_MONOTONIC, &times.it_value);
        ++times.it_value.tv_sec;
        times.it_value.tv_nsec = 0;
        timerfd_settime(timer, TFD_TIMER_ABSTIME, &times, nullptr);
    }

    bench::bare_peer peer;
    int epoll = epoll_create1(0);
    int timer = timerfd_create(CLOCK_MONOTONIC, 0);
};

void notify_latency(benchmark::State& state, double part) {
    const relay::hub hub({"tcp://127.0.0.1:*", "tcp://127.0.0.1:*"});
    application bus(hub);
    bare_loop bare(hub);
    for (auto _ : state) {
        bare.send_block();
        bus.send_block();
    }
    const double latency = bench::quantile(bus.all.seconds(), part);
    const double limit = bench::quantile(bare.all.seconds(), part);
    state.counters["microseconds"] = latency * 1e6;
    state.counters["limit_microseconds"] = limit * 1e6;
    bench::report_at_most(state, latency / limit, 1.10);
}

BENCHMARK_CAPTURE(notify_latency, p50, 0.5)->Iterations(10);
BENCHMARK_CAPTURE(notify_latency, p99, 0.99)->Iterations(10);

}  // namespace

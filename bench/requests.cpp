// Issuing a request and ending the oldest one, without a socket: does it cost more the more are outstanding?
#include <deque>
#include <string>

#include <tolvan/vesk/hub/reqrep_client_impl.hpp>
#include <tolvan/vesk/v1/connection.hpp>

#include "allocations.hpp"
#include "ratio.hpp"

namespace {

using namespace tolvan;

// Timers that never fire.
class idle_loop final : public event_loop_v1 {
    void watch_fd(file_desc, int, std::function<void(file_desc, poll_events)>) override {}
    void unwatch_fd(file_desc) override {}
    milliseconds now() override { return {}; }
    holder<timer_impl_base> create_timer(const char*, milliseconds, milliseconds,
                                         std::function<void()>) override {
        return std::make_shared<timer_impl_base>();
    }
};

class no_publications final : public vesk::v1::publisher::backend {
    void publish(vesk::v1::publisher*, const std::string&, const std::string&) override {}
};

// Has the callbacks of the client backend's subscription to replies.
class replies final : public vesk::v1::subscriber::backend {
  public:
    void answer(unsigned short id) const {
        const std::string topic = reply_topic + "." + std::to_string(id);
        notify(topic);
        handle(topic, "{}");
    }

  private:
    void revoke_subscriptions(vesk::v1::subscriber*) override {}
    void subscribe(vesk::v1::subscriber*, const std::string& topic,
                   std::function<void(const std::string&)>&& on_notify,
                   std::function<void(const std::string&, const std::string&)>&& on_handle) override {
        reply_topic = topic;
        notify = std::move(on_notify);
        handle = std::move(on_handle);
    }

    std::string reply_topic;
    std::function<void(const std::string&)> notify;
    std::function<void(const std::string&, const std::string&)> handle;
};

// A client that has so many requests outstanding. One at a time: the backends are those of the process.
class busy_client {
  public:
    explicit busy_client(std::int64_t outstanding) {
        vesk::v1::publisher::backend::instance = std::make_shared<no_publications>();
        vesk::v1::subscriber::backend::instance = subscription;
        backend = std::make_shared<vesk::hub::reqrep_client_impl>(std::make_shared<idle_loop>());
        for (std::int64_t i = 0; i < outstanding; ++i) issue();
    }
    ~busy_client() {
        backend->cancel_all_requests(&client);
        backend.reset();
        vesk::v1::release_backends();
    }

    void issue() {
        ids.push_back(backend->request(&client, "svc", "get", "1", false, [](const auto*, const auto&) {}));
    }

    void end_oldest() {
        subscription->answer(ids.front());
        ids.pop_front();
    }

    double batch_seconds() {
        return bench::cpu_seconds_of([this] {
            for (int i = 0; i < batch; ++i) {
                issue();
                end_oldest();
            }
        });
    }

    static constexpr int batch = 1000;

  private:
    std::shared_ptr<replies> subscription = std::make_shared<replies>();
    std::shared_ptr<vesk::hub::reqrep_client_impl> backend;
    vesk::v1::reqrep_client client;
    std::deque<unsigned short> ids;
};

double batch_seconds(std::int64_t outstanding) {
    busy_client client(outstanding);
    client.batch_seconds();
    return client.batch_seconds();
}

void issuing_and_ending_a_request(benchmark::State& state) {
    bench::compare(
        state, busy_client::batch, 2, [&] { return batch_seconds(state.range(0)); },
        [] { return batch_seconds(10); });
    busy_client client(10);
    state.counters["allocations"] =
        static_cast<double>(bench::heap_use_of([&] { client.batch_seconds(); }).allocations) /
        busy_client::batch;
}

// The topic, the callback, client, the timer and its holder, and the kind; the id, also among those of the
// client.
void memory_of_an_outstanding_request(benchmark::State& state) {
    constexpr std::size_t record = sizeof(std::string) + sizeof(std::function<void()>) + sizeof(void*) +
                                   sizeof(timer_impl_base) + sizeof(std::shared_ptr<timer_impl_base>) +
                                   sizeof(bool) + 2 * sizeof(unsigned short);
    constexpr int count = 10'000;
    double bytes = 0;
    for (auto _ : state) {
        busy_client client(1);
        bytes = static_cast<double>(bench::heap_use_of([&] {
                                        for (int i = 0; i < count; ++i) client.issue();
                                    }).live_bytes) /
                count;
    }
    state.counters["bytes"] = bytes;
    state.counters["limit_bytes"] = record;
    bench::report_at_most(state, bytes / record, 2);
}

BENCHMARK(issuing_and_ending_a_request)->ArgName("outstanding")->Arg(60'000)->UseManualTime()->Iterations(20);
BENCHMARK(memory_of_an_outstanding_request)->Iterations(1);

}  // namespace

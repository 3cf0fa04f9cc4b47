// What a queued delivery and a subscription take from the heap, beside what their records hold: the members,
// and the texts that do not fit into a string object.
#include <string>

#include <tolvan/vesk/hub/subscriber_impl.hpp>

#include "allocations.hpp"
#include "ratio.hpp"
#include "support/hub_sides.hpp"
#include "support/manual_event_loop.hpp"

namespace {

using namespace tolvan;

constexpr int count = 1000;

std::size_t size_of(const std::string& text) {
    return sizeof text + (text.size() > std::string().capacity() ? text.size() + 1 : 0);
}

void report(benchmark::State& state, double bytes, std::size_t record) {
    state.counters["bytes"] = bytes;
    state.counters["limit_bytes"] = static_cast<double>(record);
    bench::report_at_most(state, bytes / static_cast<double>(record), 2);
}

// A text that makes one filter and one registry entry; all of the same length.
std::string topic_of(int number) {
    return "plant.line." + std::to_string(count + number) + ".state";
}

class subscriptions {
  public:
    void add(int number) {
        backend->subscribe(
            &client, topic_of(number), [](const std::string&) {},
            [](const std::string&, const std::string&) {});
        hub.filter();
        loop->poll_once(0);
    }

    void receive(const std::string& topic, const std::string& data) {
        for (int i = 0; i < count; ++i) hub.relay(topic, data);
        loop->poll_once(1000);
    }

  private:
    test::hub_sides hub;
    std::shared_ptr<test::manual_event_loop> loop = std::make_shared<test::manual_event_loop>();
    std::shared_ptr<vesk::hub::subscriber_impl> backend =
        std::make_shared<vesk::hub::subscriber_impl>(loop, hub.sub_endpoint());
    vesk::v1::subscriber client;
};

// The same filters without the library.
class bare_filters {
  public:
    bare_filters() { zsock_connect(socket.get(), "%s", hub.sub_endpoint().c_str()); }

    void add(int number) {
        zsock_set_subscribe(socket.get(), topic_of(number).c_str());
        hub.filter();
        zsock_events(socket.get());
    }

  private:
    test::hub_sides hub;
    vesk::hub::socket socket{ZMQ_SUB};
};

template <typename Set>
double bytes_of_each(Set& set) {
    const long kept = bench::heap_use_of([&] {
                          for (int i = 0; i < count; ++i) set.add(i);
                      }).live_bytes;
    return static_cast<double>(kept) / count;
}

void memory_of_a_queued_delivery(benchmark::State& state) {
    const std::string topic = topic_of(0);
    const std::string data(100, 'x');
    double bytes = 0;
    for (auto _ : state) {
        subscriptions receiving;
        receiving.add(0);
        bytes = static_cast<double>(bench::heap_use_of([&] { receiving.receive(topic, data); }).live_bytes) /
                count;
    }
    // Whose it is, where it goes, and shares in topic and data.
    report(state, bytes,
           2 * sizeof(void*) + 2 * sizeof(std::shared_ptr<std::string>) + size_of(topic) + size_of(data));
}

void memory_of_a_subscription(benchmark::State& state) {
    double bytes = 0;
    for (auto _ : state) {
        subscriptions made;
        bare_filters bare;
        bytes = bytes_of_each(made) - bytes_of_each(bare);
    }
    // In the subscriber's map the topic, two callbacks and a serial number; the topic once more with its two
    // counts and where the only subscription to it stands.
    report(state, bytes,
           2 * size_of(topic_of(0)) + 2 * sizeof(std::function<void()>) + sizeof(std::uint64_t) +
               2 * sizeof(unsigned) + 2 * sizeof(void*));
}

BENCHMARK(memory_of_a_queued_delivery)->Iterations(1);
BENCHMARK(memory_of_a_subscription)->Iterations(1);

}  // namespace

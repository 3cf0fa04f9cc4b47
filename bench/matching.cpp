// What one received message costs when there are many subscriptions, of which it matches one or none.
#include <string>

#include "receiver.hpp"

namespace {

using namespace tolvan;

constexpr int few = 10;
constexpr std::size_t megabyte = 1024 * 1024;

std::string topic_of(std::int64_t number) {
    return "plant.line." + std::to_string(number) + ".state";
}

void subscribe_many(bench::receiver& receiver, std::int64_t count) {
    for (std::int64_t i = 1; i < count; ++i) receiver.subscribe(topic_of(i));
}

void compare_with_few(benchmark::State& state, bench::receiver& many, bench::receiver& ten, double reach,
                      const std::string& topic, int batch) {
    bench::compare(
        state, batch, reach, [&] { return many.receive_seconds(topic, "data", batch); },
        [&] { return ten.receive_seconds(topic, "data", batch); });
    if (many.matches() != ten.matches()) state.SkipWithError("a message was lost");
}

void topics_of_one_subscriber(benchmark::State& state) {
    bench::receiver many, ten;
    subscribe_many(many, state.range(0));
    subscribe_many(ten, few);
    for (bench::receiver* receiver : {&many, &ten}) receiver->subscribe("plant.pump");
    compare_with_few(state, many, ten, 10, "plant.pump.pressure", 100);
}

// The empty topic takes in what no segment of the others matches.
void megabyte_of_dots(benchmark::State& state) {
    bench::receiver many, ten;
    subscribe_many(many, state.range(0));
    subscribe_many(ten, few);
    for (bench::receiver* receiver : {&many, &ten}) receiver->subscribe("");
    compare_with_few(state, many, ten, 10, std::string(megabyte, '.'), 5);
}

void add_subscribers(bench::receiver& receiver, std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) {
        receiver.add_subscriber();
        receiver.subscribe(topic_of(i));
    }
}

// Begins like a subscribed topic, so the hub's filter lets it through, but goes on inside the segment.
void subscribers_of_other_topics(benchmark::State& state) {
    bench::receiver many, ten;
    add_subscribers(many, state.range(0));
    add_subscribers(ten, few);
    compare_with_few(state, many, ten, 2, topic_of(1) + "s", 10);
}

void subscribers_of_one_topic_each(benchmark::State& state) {
    bench::receiver many, ten;
    add_subscribers(many, state.range(0));
    add_subscribers(ten, few);
    compare_with_few(state, many, ten, 1.3, topic_of(1), 10);
}

BENCHMARK(topics_of_one_subscriber)->Arg(1000)->Arg(100'000)->UseManualTime()->Iterations(1000);
BENCHMARK(megabyte_of_dots)->Arg(100'000)->UseManualTime()->Iterations(50);
BENCHMARK(subscribers_of_other_topics)->Arg(1000)->Arg(10'000)->UseManualTime()->Iterations(1000);
BENCHMARK(subscribers_of_one_topic_each)->Arg(1000)->Arg(10'000)->UseManualTime()->Iterations(1000);

}  // namespace

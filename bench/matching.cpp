// What one received message costs a subscriber with many subscriptions, one of which it matches. Each case is
// measured beside a subscriber with 10 of them; the counter is the ratio of the two.
#include <string>

#include <benchmark/benchmark.h>

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

// Receives messages in batches at both receivers; the time of one message at `many` is what is reported.
void compare(benchmark::State& state, bench::receiver& many, bench::receiver& ten, const std::string& topic,
             int batch) {
    double spent_by_many = 0, spent_by_ten = 0;
    int messages = 0;
    for (auto _ : state) {
        const double spent = many.receive_seconds(topic, "data", batch) / batch;
        spent_by_ten += ten.receive_seconds(topic, "data", batch) / batch;
        spent_by_many += spent;
        messages += batch;
        state.SetIterationTime(spent);
    }
    state.counters["times_the_cost_with_10"] = spent_by_many / spent_by_ten;
    if (many.matches() != messages || ten.matches() != messages) state.SkipWithError("a message was lost");
}

void one_match(benchmark::State& state) {
    bench::receiver many, ten;
    subscribe_many(many, state.range(0));
    subscribe_many(ten, few);
    for (bench::receiver* receiver : {&many, &ten}) receiver->subscribe("plant.pump");
    compare(state, many, ten, "plant.pump.pressure", 100);
}

// The empty topic takes in what no segment of the others matches.
void megabyte_topic(benchmark::State& state, char filling) {
    bench::receiver many, ten;
    subscribe_many(many, state.range(0));
    subscribe_many(ten, few);
    for (bench::receiver* receiver : {&many, &ten}) receiver->subscribe("");
    compare(state, many, ten, std::string(megabyte, filling), 5);
}

void megabyte_of_dots(benchmark::State& state) {
    megabyte_topic(state, '.');
}

void megabyte_without_dots(benchmark::State& state) {
    megabyte_topic(state, 'x');
}

void subscription_counts(benchmark::internal::Benchmark* cases) {
    cases->ArgName("subscriptions")->Arg(few)->Arg(1000)->Arg(100'000)->UseManualTime();
    cases->Unit(benchmark::kMicrosecond);
}

BENCHMARK(one_match)->Apply(subscription_counts)->Iterations(1000);
BENCHMARK(megabyte_of_dots)->Apply(subscription_counts)->Iterations(50);
BENCHMARK(megabyte_without_dots)->Apply(subscription_counts)->Iterations(50);

}  // namespace

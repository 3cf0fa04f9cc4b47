// How many messages a second go from a process through a hub in a second one to a third, with nothing lost:
// over the library, beside the czmq calls that it makes.
#include <cstdio>
#include <filesystem>
#include <string>

#include <fmt/format.h>

#include <tolvan/relay/hub.hpp>

#include "ratio.hpp"

namespace {

using namespace tolvan;

constexpr const char* any_port = "tcp://127.0.0.1:*";
constexpr int messages = 200'000;

// 0 when messages were lost.
double messages_per_second(const relay::hub& hub, const char* bus) {
    const auto program = std::filesystem::read_symlink("/proc/self/exe").replace_filename("throughput_peer");
    const std::string arguments =
        fmt::format("{} {} {} {}", bus, hub.pub_endpoint(), hub.sub_endpoint(), messages);
    std::FILE* const output = ::popen(
        fmt::format("'{0}' receive {1} | '{0}' publish {1}", program.string(), arguments).c_str(), "r");
    double rate = 0;
    const bool told = std::fscanf(output, "%lf", &rate) == 1;
    return ::pclose(output) == 0 && told ? rate : 0;
}

void throughput(benchmark::State& state) {
    const relay::hub hub({any_port, any_port});
    std::vector<double> rates, limits;
    for (auto _ : state) {
        limits.push_back(messages_per_second(hub, "czmq"));
        rates.push_back(messages_per_second(hub, "vesk"));
        if (rates.back() == 0 || limits.back() == 0) return state.SkipWithError("a message was lost");
    }
    state.counters["per_second"] = bench::median(rates);
    state.counters["limit_per_second"] = bench::median(limits);
    bench::report_at_least(state, bench::median(rates) / bench::median(limits), 0.72);
}

BENCHMARK(throughput)->Iterations(9);

}  // namespace

// "vesk pub TOPIC DATA" from its start to its end, beside a process that does the same with bare czmq.
#include <filesystem>
#include <string>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tolvan/relay/hub.hpp>

#include "ratio.hpp"

namespace {

using namespace tolvan;

constexpr const char* any_port = "tcp://127.0.0.1:*";
constexpr int processes_in_a_row = 10;

bool succeeds(const std::string& name, std::vector<std::string> arguments) {
    std::string program = std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
    std::vector<char*> argv = {program.data()};
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t process = 0;
    int status = 1;
    return ::posix_spawn(&process, program.c_str(), nullptr, nullptr, argv.data(), environ) == 0 &&
           ::waitpid(process, &status, 0) == process && status == 0;
}

// 0 when one has failed.
double seconds_of_ten(const std::string& program, const std::vector<std::string>& arguments) {
    bool good = true;
    const double spent = bench::seconds_of([&] {
        for (int i = 0; i < processes_in_a_row; ++i) good = good && succeeds(program, arguments);
    });
    return good ? spent : 0;
}

void ten_vesk_pubs(benchmark::State& state) {
    const relay::hub hub({any_port, any_port});
    const std::string pub = hub.pub_endpoint(), sub = hub.sub_endpoint();
    std::vector<double> measured, limit;
    for (auto _ : state) {
        limit.push_back(seconds_of_ten("bare_pub", {pub, sub}));
        measured.push_back(seconds_of_ten(
            "vesk", {"pub", "bare.pub", "data", "--pub-endpoint", pub, "--sub-endpoint", sub}));
        if (limit.back() == 0 || measured.back() == 0) return state.SkipWithError("a process has failed");
    }
    state.counters["milliseconds"] = bench::median(measured) * 1e3;
    state.counters["limit_milliseconds"] = bench::median(limit) * 1e3;
    bench::report_at_most(state, bench::median(measured) / bench::median(limit), 2);
}

BENCHMARK(ten_vesk_pubs)->Iterations(15);

}  // namespace

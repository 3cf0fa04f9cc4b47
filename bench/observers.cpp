// How many messages a second "vesk sub" and "vesk record" write into a file, as whole processes, beside a
// loop on a bare SUB socket that writes the same lines; and how much "vesk top" works on many topics.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.hpp>

#include <tolvan/relay/hub.hpp>

#include "ratio.hpp"

namespace {

using namespace tolvan;

constexpr const char* any_port = "tcp://127.0.0.1:*";
constexpr int messages = 100'000;  // as many as the hub keeps for one who is late
constexpr int many_topics = 100'000;
constexpr int rounds = 3;  // over all topics
constexpr unsigned pause_us = 300'000;
constexpr std::int64_t room_for_all = 4 * relay::hub::default_queue_bytes;  // however late somebody is
constexpr int patience_ms = 20'000;
constexpr std::string_view topic = "plant.pump.pressure", begin = "begin";

std::int64_t now_ms() {
    return static_cast<std::int64_t>(bench::seconds(CLOCK_MONOTONIC) * 1000);
}

class publisher {
  public:
    explicit publisher(const relay::hub& hub) {
        zmq::message_t subscription;
        socket.set(zmq::sockopt::sndhwm, 0);
        socket.connect(hub.pub_endpoint());
        static_cast<void>(socket.recv(subscription));
    }

    void send(std::string_view to) {
        const std::int64_t metadata[] = {1, now_ms()};
        socket.send(zmq::buffer(to), zmq::send_flags::sndmore);
        socket.send(zmq::buffer(data), zmq::send_flags::sndmore);
        socket.send(zmq::buffer(metadata));
    }

    void send_all() {
        for (int i = 0; i < messages; ++i) send(topic);
    }

  private:
    const std::string data = std::string(100, 'x');
    zmq::context_t context;
    zmq::socket_t socket{context, ZMQ_XPUB};
};

// The file that is written, gone afterwards.
struct scratch_file {
    scratch_file() = default;
    scratch_file(const scratch_file&) = delete;
    scratch_file& operator=(const scratch_file&) = delete;
    ~scratch_file() { std::filesystem::remove(path); }

    const std::string path =
        (std::filesystem::temp_directory_path() / fmt::format("vesk-benchmark.{}", ::getpid())).string();
};

// What the program with these arguments says.
std::FILE* started_program(const relay::hub& hub, const std::string& arguments) {
    const auto program = std::filesystem::read_symlink("/proc/self/exe").replace_filename("vesk");
    const std::string command =
        fmt::format("exec timeout {} '{}' --pub-endpoint {} --sub-endpoint {} {}", patience_ms / 1000,
                    program.string(), hub.pub_endpoint(), hub.sub_endpoint(), arguments);
    return ::popen(command.c_str(), "r");
}

bool is_ready(std::FILE* log) {
    char line[256] = "";
    return std::fgets(line, sizeof line, log) != nullptr && std::strstr(line, "ready") != nullptr;
}

// Seconds until the program with these arguments has written all messages and ended; 0 when it failed.
double seconds_of_program(const relay::hub& hub, publisher& publishing, const std::string& arguments) {
    std::FILE* const log = started_program(hub, fmt::format("{} --count {}", arguments, messages));
    const bool can_begin = is_ready(log);
    int status = 1;
    const double spent = bench::seconds_of([&] {
        if (can_begin) publishing.send_all();
        status = ::pclose(log);
    });
    return status == 0 ? spent : 0;
}

using line_writer = void (*)(std::FILE* to, const zmq::message_t& data, const zmq::message_t& metadata);

void write_plain(std::FILE* to, const zmq::message_t& data, const zmq::message_t&) {
    std::fwrite(topic.data(), 1, topic.size(), to);
    std::fputc(' ', to);
    std::fwrite(data.data(), 1, data.size(), to);
    std::fputc('\n', to);
}

void write_json(std::FILE* to, const zmq::message_t& data, const zmq::message_t& metadata) {
    std::int64_t stamp = 0;
    std::memcpy(&stamp, metadata.data<char>() + 8, sizeof stamp);
    fmt::print(to,
               R"({{"t":{:.6f},"topic":"{}","data":"{}","age_ms":{}}})"
               "\n",
               bench::seconds(CLOCK_MONOTONIC), topic, data.to_string_view(), now_ms() - stamp);
}

bool receive_frames(zmq::socket_t& socket, zmq::message_t (&frames)[3]) {
    for (auto& frame : frames)
        if (!socket.recv(frame)) return false;
    return true;
}

// The loop, on a thread.
class bare_loop {
  public:
    bare_loop(const relay::hub& hub, const std::string& file, line_writer write)
        : running([this, endpoint = hub.sub_endpoint(), file, write] { run(endpoint, file, write); }) {}

    bool is_ready() const { return ready; }

    /// Whether it has written all messages.
    bool join() {
        running.join();
        return written == messages;
    }

  private:
    void run(const std::string& endpoint, const std::string& file, line_writer write) {
        zmq::context_t context;
        zmq::socket_t socket{context, ZMQ_SUB};
        socket.set(zmq::sockopt::rcvhwm, messages);
        socket.set(zmq::sockopt::rcvtimeo, patience_ms);
        socket.set(zmq::sockopt::subscribe, topic);
        socket.set(zmq::sockopt::subscribe, begin);
        socket.connect(endpoint);
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> to(std::fopen(file.c_str(), "w"), std::fclose);
        zmq::message_t frames[3];
        while (written < messages && receive_frames(socket, frames)) {
            if (frames[0].to_string_view() == begin) {
                ready = true;
                continue;
            }
            write(to.get(), frames[1], frames[2]);
            ++written;
        }
    }

    std::atomic<bool> ready{false};
    int written = 0;
    std::thread running;
};

double seconds_of_loop(const relay::hub& hub, publisher& publishing, const std::string& file,
                       line_writer write) {
    bare_loop loop(hub, file, write);
    while (!loop.is_ready()) {
        publishing.send(begin);
        ::usleep(1000);
    }
    bool complete = false;
    const double spent = bench::seconds_of([&] {
        publishing.send_all();
        complete = loop.join();
    });
    return complete ? spent : 0;
}

// `arguments` of the program, in which {} stands for the file.
void compare_program(benchmark::State& state, const char* arguments, line_writer write) {
    const scratch_file file;
    const relay::hub hub({any_port, any_port});
    publisher publishing(hub);
    std::vector<double> rates, limits;
    for (auto _ : state) {
        const double limit = seconds_of_loop(hub, publishing, file.path, write);
        std::filesystem::remove(file.path);
        const double spent =
            seconds_of_program(hub, publishing, fmt::format(fmt::runtime(arguments), file.path));
        std::filesystem::remove(file.path);
        if (spent == 0 || limit == 0) return state.SkipWithError("a message was lost");
        rates.push_back(messages / spent);
        limits.push_back(messages / limit);
    }
    state.counters["per_second"] = bench::median(rates);
    state.counters["limit_per_second"] = bench::median(limits);
    bench::report_at_least(state, bench::median(rates) / bench::median(limits), 0.8);
}

void vesk_sub_into_a_file(benchmark::State& state) {
    compare_program(state, "sub plant.pump.pressure 2>&1 >{}", write_plain);
}

void vesk_record_into_a_file(benchmark::State& state) {
    compare_program(state, "record {} plant.pump.pressure 2>&1", write_json);
}

// CPU time of the children that have ended, in seconds.
double cpu_seconds_of_children() {
    rusage used{};
    ::getrusage(RUSAGE_CHILDREN, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

// With pauses, in which nobody is late any more unless the machine has other things to do.
void send_to_many_topics(publisher& publishing) {
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < many_topics; ++i) publishing.send(fmt::format("plant.pump.{}", i));
        ::usleep(pause_us);
    }
}

// The CPU time of "vesk top --once"; 0 when it has not seen all messages.
double cpu_seconds_of_top(const relay::hub& hub, publisher& publishing) {
    const double before = cpu_seconds_of_children();
    std::FILE* const output = started_program(hub, "top --once --interval 8 plant 2>&1");
    if (is_ready(output)) send_to_many_topics(publishing);
    const std::string wanted = fmt::format("topics: {}, messages: {};", many_topics, rounds * many_topics);
    bool complete = false;
    char line[256];
    while (std::fgets(line, sizeof line, output) != nullptr)
        complete = complete || std::strstr(line, wanted.c_str()) != nullptr;
    return ::pclose(output) == 0 && complete ? cpu_seconds_of_children() - before : 0;
}

// Counts all messages; writes a byte to `told` for each "begin".
bool counts_all(const std::string& endpoint, int told) {
    zmq::context_t context;
    zmq::socket_t socket{context, ZMQ_SUB};
    socket.set(zmq::sockopt::rcvhwm, messages);
    socket.set(zmq::sockopt::rcvtimeo, patience_ms);
    socket.set(zmq::sockopt::subscribe, "plant");
    socket.set(zmq::sockopt::subscribe, begin);
    socket.connect(endpoint);
    zmq::message_t frames[3];
    for (int counted = 0; counted < rounds * many_topics;) {
        if (!receive_frames(socket, frames)) return false;
        if (frames[0].to_string_view() != begin)
            ++counted;
        else if (::write(told, "", 1) != 1)
            return false;
    }
    return true;
}

// The same for a bare SUB loop that only counts, as a process too.
double cpu_seconds_of_counting(const relay::hub& hub, publisher& publishing) {
    const double before = cpu_seconds_of_children();
    int ends[2];
    if (::pipe(ends) != 0) return 0;
    const pid_t child = ::fork();
    if (child == 0) ::_exit(counts_all(hub.sub_endpoint(), ends[1]) ? 0 : 1);
    pollfd told = {ends[0], POLLIN, 0};
    do publishing.send(begin);
    while (::poll(&told, 1, 1) == 0);
    send_to_many_topics(publishing);
    int status = 1;
    ::waitpid(child, &status, 0);
    for (const int end : ends) ::close(end);
    return status == 0 ? cpu_seconds_of_children() - before : 0;
}

void vesk_top_once(benchmark::State& state) {
    const relay::hub hub({.pub_endpoint = any_port, .sub_endpoint = any_port, .queue_bytes = room_for_all});
    publisher publishing(hub);
    std::vector<double> times, limits;
    for (auto _ : state) {
        limits.push_back(cpu_seconds_of_counting(hub, publishing));
        times.push_back(cpu_seconds_of_top(hub, publishing));
        if (times.back() == 0 || limits.back() == 0) return state.SkipWithError("a message was lost");
    }
    state.counters["milliseconds"] = bench::median(times) * 1e3;
    state.counters["limit_milliseconds"] = bench::median(limits) * 1e3;
    bench::report_at_most(state, bench::median(times) / bench::median(limits), 6);
}

BENCHMARK(vesk_top_once)->Iterations(3);
BENCHMARK(vesk_sub_into_a_file)->Iterations(9);
BENCHMARK(vesk_record_into_a_file)->Iterations(9);

}  // namespace

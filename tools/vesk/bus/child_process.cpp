#include "bus/child_process.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tolvan::vesk::tool {

namespace {

int checked(int result, const std::string& what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

// The input as a file in memory: whenever and however slowly the program reads, nobody has to wait for it.
wire::descriptor input_file(const std::string& input) {
    wire::descriptor file(checked(::memfd_create("input", MFD_CLOEXEC), "memfd_create"));
    for (std::size_t written = 0; written < input.size();)
        written += static_cast<std::size_t>(
            checked(static_cast<int>(::write(file.get(), input.data() + written, input.size() - written)),
                    "could not pass the input on"));
    checked(static_cast<int>(::lseek(file.get(), 0, SEEK_SET)), "lseek");
    return file;
}

// The end to read from, which never blocks, and the end to write to.
std::pair<wire::descriptor, wire::descriptor> make_pipe() {
    std::array<int, 2> ends{};
    checked(::pipe2(ends.data(), O_CLOEXEC), "pipe");
    std::pair made{wire::descriptor(ends[0]), wire::descriptor(ends[1])};
    checked(::fcntl(ends[0], F_SETFL, O_NONBLOCK), "fcntl");
    return made;
}

struct standard_streams {
    wire::descriptor input{};
    wire::descriptor output{};
    wire::descriptor errors{};
};

// Starts the program in a process group of its own, with signals as a program expects them. It alone has the
// streams afterwards, which leaves room for descriptors that can be made only now.
pid_t spawn(const std::vector<std::string>& command, standard_streams streams) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const auto& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    sigset_t no_signals;
    sigset_t all_signals;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, streams.input.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, streams.output.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, streams.errors.get(), STDERR_FILENO);
    ::posix_spawnattr_init(&attributes);
    ::sigemptyset(&no_signals);
    ::posix_spawnattr_setsigmask(&attributes, &no_signals);
    ::sigfillset(&all_signals);
    ::posix_spawnattr_setsigdefault(&attributes, &all_signals);
    ::posix_spawnattr_setpgroup(&attributes, 0);
    ::posix_spawnattr_setflags(&attributes,
                               POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    const int error =
        ::posix_spawnp(&pid, arguments.front(), &actions, &attributes, arguments.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "could not run " + command.front());
    return pid;
}

// Calls `take` with each piece that can be read now. False once there is nothing more to come.
bool read_available(const wire::descriptor& from, const std::function<void(std::string_view)>& take) {
    std::array<char, 65536> piece;
    while (true) {
        const ssize_t length = ::read(from.get(), piece.data(), piece.size());
        if (length < 0 && errno == EINTR) continue;
        if (length < 0 && errno == EAGAIN) return true;
        if (length <= 0) return false;
        take({piece.data(), static_cast<std::size_t>(length)});
    }
}

}  // namespace

child_process::child_process(event_loop_v1& loop, const std::vector<std::string>& command,
                             const std::string& input, std::function<void(outcome)> ended)
    : child_process(loop, std::move(ended)) {
    standard_streams streams{.input = input_file(input)};
    std::tie(output, streams.output) = make_pipe();
    std::tie(errors, streams.errors) = make_pipe();
    watch(output, [this] { read_output(); });
    watch(errors, [this] { read_errors(); });
    pid = spawn(command, std::move(streams));
    exit_notice =
        wire::descriptor(checked(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)), "pidfd_open"));
    watch(exit_notice, [this] { reap(); });
}

child_process::~child_process() {
    end_watches();
    if (pid < 0) return;
    kill_group();
    ::waitpid(pid, nullptr, 0);
}

void child_process::watch(const wire::descriptor& fd, std::function<void()> callback) {
    events.watch_fd({fd.get()}, 0, [callback = std::move(callback)](auto, auto) { callback(); });
    watched.push_back(fd.get());
}

void child_process::end_watches() {
    for (const int fd : std::exchange(watched, {})) events.unwatch_fd({fd});
}

void child_process::give_up(const std::string& reason) {
    if (has_ended()) return;
    if (result.given_up_for.empty()) result.given_up_for = reason;
    kill_group();
}

// Leaves it to be waited for: until then its number is nobody else's.
bool child_process::has_ended() const {
    siginfo_t state{};
    const int error = ::waitid(P_PID, static_cast<id_t>(pid), &state, WEXITED | WNOHANG | WNOWAIT);
    return error != 0 || state.si_pid == pid;
}

void child_process::kill_group() const {
    ::kill(-pid, SIGKILL);
}

void child_process::read_output() {
    const bool open = read_available(output, [this](std::string_view piece) {
        result.standard_output += piece.substr(0, most_output - result.standard_output.size());
        if (result.standard_output.size() < most_output || !result.given_up_for.empty()) return;
        result.given_up_for = "the program's output is larger than a message may be";
        kill_group();
    });
    if (!open && std::erase(watched, output.get()) > 0) events.unwatch_fd({output.get()});
}

void child_process::read_errors() {
    const bool open = read_available(errors, [this](std::string_view piece) {
        result.standard_error += piece;
        if (result.standard_error.size() > most_errors)
            result.standard_error.erase(0, result.standard_error.size() - most_errors);
    });
    if (!open && std::erase(watched, errors.get()) > 0) events.unwatch_fd({errors.get()});
}

// The program has ended; what others that it has started may still write is not waited for.
void child_process::reap() {
    if (!has_ended()) return;
    read_output();
    read_errors();
    end_watches();
    ::waitpid(std::exchange(pid, -1), &result.wait_status, WNOHANG);
    const auto call = std::move(when_ended);
    call(std::move(result));
}

}  // namespace tolvan::vesk::tool

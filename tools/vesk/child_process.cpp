#include "child_process.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <system_error>
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
owned_fd input_file(const std::string& input) {
    owned_fd file(checked(::memfd_create("input", MFD_CLOEXEC), "memfd_create"));
    for (std::size_t written = 0; written < input.size();)
        written += static_cast<std::size_t>(
            checked(static_cast<int>(::write(file.get(), input.data() + written, input.size() - written)),
                    "could not pass the input on"));
    checked(static_cast<int>(::lseek(file.get(), 0, SEEK_SET)), "lseek");
    return file;
}

struct pipe_ends {
    owned_fd read;
    owned_fd write;
};

pipe_ends make_pipe() {
    std::array<int, 2> ends{};
    checked(::pipe2(ends.data(), O_CLOEXEC), "pipe");
    pipe_ends made{owned_fd(ends[0]), owned_fd(ends[1])};
    checked(::fcntl(made.read.get(), F_SETFL, O_NONBLOCK), "fcntl");
    return made;
}

// Starts the program with those standard descriptors, in a process group of its own, with signals as a
// program expects them.
pid_t spawn(const std::vector<std::string>& command, int input, int output, int errors) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const auto& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    sigset_t no_signals;
    sigset_t all_signals;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
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
bool read_available(const owned_fd& from, const std::function<void(std::string_view)>& take) {
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

owned_fd& owned_fd::operator=(owned_fd&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
}

owned_fd::~owned_fd() {
    if (fd >= 0) ::close(fd);
}

child_process::child_process(event_loop_v1& loop, const std::vector<std::string>& command,
                             const std::string& input, std::function<void(outcome)> ended)
    : child_process(loop, std::move(ended)) {
    const owned_fd standard_input = input_file(input);
    pipe_ends output_pipe = make_pipe();
    pipe_ends error_pipe = make_pipe();
    pid = spawn(command, standard_input.get(), output_pipe.write.get(), error_pipe.write.get());
    exit_notice = owned_fd(checked(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)), "pidfd_open"));
    output = std::move(output_pipe.read);
    errors = std::move(error_pipe.read);
    watch(output, [this] { read_output(); });
    watch(errors, [this] { read_errors(); });
    watch(exit_notice, [this] { reap(); });
}

child_process::~child_process() {
    end_watches();
    if (pid < 0) return;
    kill_group();
    ::waitpid(pid, nullptr, 0);
}

void child_process::watch(const owned_fd& fd, std::function<void()> callback) {
    events.watch_fd({fd.get()}, 0, [callback = std::move(callback)](auto, auto) { callback(); });
    watched.push_back(fd.get());
}

void child_process::end_watches() {
    for (const int fd : std::exchange(watched, {})) events.unwatch_fd({fd});
}

void child_process::kill_group() const {
    ::kill(-pid, SIGKILL);
}

void child_process::read_output() {
    const bool open = read_available(output, [this](std::string_view piece) {
        result.standard_output += piece.substr(0, most_output - result.standard_output.size());
        if (result.standard_output.size() < most_output || result.too_much_output) return;
        result.too_much_output = true;
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
    read_output();
    read_errors();
    end_watches();
    ::waitpid(std::exchange(pid, -1), &result.wait_status, 0);
    const auto call = std::move(when_ended);
    call(std::move(result));
}

}  // namespace tolvan::vesk::tool

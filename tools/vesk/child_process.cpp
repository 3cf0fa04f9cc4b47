#include "child_process.hpp"

#include <array>
#include <cerrno>
#include <csignal>
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

// Starts the program with those standard descriptors and without the signals that this process has blocked.
pid_t spawn(const std::vector<std::string>& command, int input, int output, int errors) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const auto& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    sigset_t no_signals;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
    ::posix_spawnattr_init(&attributes);
    ::sigemptyset(&no_signals);
    ::posix_spawnattr_setsigmask(&attributes, &no_signals);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    const int error =
        ::posix_spawnp(&pid, arguments.front(), &actions, &attributes, arguments.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "could not run " + command.front());
    return pid;
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
    : events(loop),
      when_ended(std::move(ended)),
      output{owned_fd(), result.standard_output},
      errors{owned_fd(), result.standard_error} {
    const owned_fd standard_input = input_file(input);
    pipe_ends output_pipe = make_pipe();
    pipe_ends error_pipe = make_pipe();
    pid = spawn(command, standard_input.get(), output_pipe.write.get(), error_pipe.write.get());
    exit_notice = owned_fd(checked(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)), "pidfd_open"));
    output.end = std::move(output_pipe.read);
    errors.end = std::move(error_pipe.read);
    watch(output);
    watch(errors);
    events.watch_fd({exit_notice.get()}, 0, [this](auto, auto) { reap(); });
}

child_process::~child_process() {
    if (pid < 0) return;
    events.unwatch_fd({exit_notice.get()});
    unwatch(output);
    unwatch(errors);
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

void child_process::watch(stream& watched) {
    events.watch_fd({watched.end.get()}, 0, [this, &watched](auto, auto) { read_available(watched); });
    watched.watched = true;
}

void child_process::unwatch(stream& watched) {
    if (std::exchange(watched.watched, false)) events.unwatch_fd({watched.end.get()});
}

void child_process::read_available(stream& from) {
    std::array<char, 65536> piece;
    while (true) {
        const ssize_t length = ::read(from.end.get(), piece.data(), piece.size());
        if (length < 0 && errno == EINTR) continue;
        if (length < 0 && errno == EAGAIN) return;
        if (length <= 0) return unwatch(from);
        from.text.append(piece.data(), static_cast<std::size_t>(length));
        if (from.text.size() <= most_output) continue;
        ::kill(pid, SIGKILL);
        return unwatch(from);
    }
}

// The program has ended; what others that it has started may still write is not waited for.
void child_process::reap() {
    read_available(output);
    read_available(errors);
    unwatch(output);
    unwatch(errors);
    events.unwatch_fd({exit_notice.get()});
    ::waitpid(std::exchange(pid, -1), &result.wait_status, 0);
    const auto call = std::move(when_ended);
    call(std::move(result));
}

}  // namespace tolvan::vesk::tool

#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

#include <tolvan/event_loop_v1.hpp>

namespace tolvan::vesk::tool {

/// Owner of a file descriptor.
class owned_fd {
  public:
    explicit owned_fd(int descriptor = -1) : fd(descriptor) {}
    owned_fd(owned_fd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    owned_fd& operator=(owned_fd&& other) noexcept;
    ~owned_fd();

    int get() const { return fd; }

  private:
    int fd;
};

/// A program that runs beside the event loop, in a process group of its own. Destroying it kills a program
/// that still runs, with whatever it has started.
class child_process {
  public:
    struct outcome {
        int wait_status = 0;           ///< as waitpid gives it
        std::string standard_output;   ///< up to `most_output` bytes
        bool too_much_output = false;  ///< there was more, and the program was killed for it
        std::string standard_error;    ///< the last `most_errors` bytes
    };

    static constexpr std::size_t most_output = 16 * 1024 * 1024;
    static constexpr std::size_t most_errors = 4096;

    /// Starts `command` with `input` on its standard input; `ended` is called once when it has ended. SIGCHLD
    /// must not be ignored. Throws std::system_error when the program cannot be started.
    child_process(event_loop_v1& loop, const std::vector<std::string>& command, const std::string& input,
                  std::function<void(outcome)> ended);
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;
    ~child_process();

  private:
    // Completes before the program is started, so that the destructor runs whatever fails afterwards.
    child_process(event_loop_v1& loop, std::function<void(outcome)> ended)
        : events(loop), when_ended(std::move(ended)) {}

    void watch(const owned_fd& fd, std::function<void()> callback);
    void end_watches();
    void kill_group() const;
    void read_output();
    void read_errors();
    void reap();

    event_loop_v1& events;
    std::function<void(outcome)> when_ended;
    outcome result;
    pid_t pid = -1;
    owned_fd exit_notice;
    owned_fd output;
    owned_fd errors;
    std::vector<int> watched;
};

}  // namespace tolvan::vesk::tool

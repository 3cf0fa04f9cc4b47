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

/// A program that runs beside the event loop. Destroying it kills a program that still runs.
class child_process {
  public:
    struct outcome {
        int wait_status = 0;  ///< as waitpid gives it
        std::string standard_output;
        std::string standard_error;
    };

    /// Starts `command` with `input` on its standard input; `ended` is called once when it has ended. Output
    /// of more than `most_output` bytes ends it. Throws std::system_error when it cannot be started.
    child_process(event_loop_v1& loop, const std::vector<std::string>& command, const std::string& input,
                  std::function<void(outcome)> ended);
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;
    ~child_process();

    static constexpr std::size_t most_output = 16 * 1024 * 1024;

  private:
    struct stream {
        owned_fd end;
        std::string& text;
        bool watched = false;
    };

    void watch(stream& output);
    void unwatch(stream& output);
    void read_available(stream& output);
    void reap();

    event_loop_v1& events;
    std::function<void(outcome)> when_ended;
    outcome result;
    pid_t pid = -1;
    owned_fd exit_notice;
    stream output;
    stream errors;
};

}  // namespace tolvan::vesk::tool

#pragma once

#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <tolvan/event_loop_v1.hpp>
#include <tolvan/wire/descriptor.hpp>

namespace tolvan::vesk::tool {

/// A program that runs beside the event loop, in a process group of its own. Destroying it kills a program
/// that still runs, with whatever it has started.
class child_process {
  public:
    struct outcome {
        int wait_status = 0;          ///< as waitpid gives it
        std::string standard_output;  ///< less than `most_output` bytes, unless it was given up for them
        std::string standard_error;   ///< the last `most_errors` bytes
        std::string given_up_for;     ///< why it was killed from here; empty when it ended by itself
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

    /// Kills the program, with whatever it has started, unless it has ended already. `ended` is called as for
    /// any end.
    void give_up(const std::string& reason);

  private:
    // Completes before the program is started, so that the destructor runs whatever fails afterwards.
    child_process(event_loop_v1& loop, std::function<void(outcome)> ended)
        : events(loop), when_ended(std::move(ended)) {}

    void watch(const wire::descriptor& fd, std::function<void()> callback);
    void end_watches();
    bool has_ended() const;
    void kill_group() const;
    void read_output();
    void read_errors();
    void reap();

    event_loop_v1& events;
    std::function<void(outcome)> when_ended;
    outcome result;
    pid_t pid = -1;
    wire::descriptor exit_notice;
    wire::descriptor output;
    wire::descriptor errors;
    std::vector<int> watched;
};

}  // namespace tolvan::vesk::tool

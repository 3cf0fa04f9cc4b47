#pragma once

namespace tolvan::vesk::tool {

/// SIGINT, SIGTERM and SIGHUP as something to read instead of an interruption; SIGHUP only when it is not
/// ignored, as nohup has it. Make it before any thread, which inherits the blocked signals.
class termination_signals {
  public:
    /// Throws std::system_error.
    termination_signals();
    termination_signals(const termination_signals&) = delete;
    termination_signals& operator=(const termination_signals&) = delete;
    ~termination_signals();

    /// Readable once a signal has come.
    int descriptor() const { return fd; }

  private:
    int fd;
};

/// Lets the process outlive whoever reads its output, and write to a terminal behind other programs.
void ignore_signals_about_output();

}  // namespace tolvan::vesk::tool

#pragma once

namespace tolvan::vesk::tool {

/// SIGINT and SIGTERM as something to read instead of an interruption. Make it before any thread, which
/// inherits the blocked signals.
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

}  // namespace tolvan::vesk::tool

#pragma once

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::vesk::tool {

/// SIGINT, SIGTERM and SIGHUP as something to read instead of an interruption; SIGHUP only when it is not
/// ignored, as nohup has it. Make it before any thread, which inherits the blocked signals.
class termination_signals {
  public:
    /// Throws std::system_error.
    termination_signals();

    /// Readable once a signal has come, until it is taken.
    int descriptor() const { return held.get(); }

    /// Takes one signal that has come.
    void take() const;

  private:
    wire::descriptor held;
};

/// Has a write fail that would end the process otherwise: to somebody who has gone, and to a file that may
/// not grow.
void let_writes_fail();

/// Lets the process write to a terminal behind other programs.
void write_behind_others();

}  // namespace tolvan::vesk::tool

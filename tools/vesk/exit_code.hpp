#pragma once

namespace tolvan::vesk::tool {

/// What the command's exit status tells.
enum exit_code : int {
    done = 0,
    failed = 1,  ///< refused or failed: a rejected endpoint, a failed bind, a NACK
    wrong_usage = 2,
    timed_out = 3,
};

/// `vesk check` has the codes of monitoring plug-ins instead: 0, 1 and 2 tell the state of the bus, and this
/// one everything that kept it from being known.
inline constexpr int monitoring_unknown = 3;

}  // namespace tolvan::vesk::tool

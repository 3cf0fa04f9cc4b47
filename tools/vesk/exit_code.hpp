#pragma once

namespace tolvan::vesk::tool {

/// What the command's exit status tells.
enum exit_code : int {
    done = 0,
    failed = 1,  ///< refused or failed: a rejected endpoint, a failed bind, a NACK
    wrong_usage = 2,
    timed_out = 3,
};

}  // namespace tolvan::vesk::tool

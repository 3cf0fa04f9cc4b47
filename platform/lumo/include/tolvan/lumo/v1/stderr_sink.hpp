#pragma once

#include <tolvan/lumo/v1/log.hpp>

namespace tolvan::lumo::v1 {

/// From now on every record of level `most_verbose` or below goes to stderr, until the result is destroyed:
///
///     const auto log = tolvan::lumo::v1::log_to_stderr();
///
/// A record is one line, such as `warning src/hub/reqrep_client_impl:257 timeout_expired: timeout for ...`,
/// written in one piece, so that lines of several processes do not mix. It allocates nothing, and waits for
/// whoever reads stderr; what cannot be written is dropped.
[[nodiscard]] sink_registration log_to_stderr(level most_verbose = warning);

}  // namespace tolvan::lumo::v1

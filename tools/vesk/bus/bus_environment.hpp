#pragma once

#include <cstddef>

#include "options/common_options.hpp"

namespace tolvan::vesk::tool {

/// Sets what the command wants of the libraries under the bus, unless the environment says otherwise: long
/// queues, and IPv6 for endpoints that name such an address. To be called before the process's first socket.
void prepare_environment(const common_options& common);

/// Throws std::runtime_error for what would end the process in an assertion inside those libraries: a queue
/// limit that is none, or too few free descriptors. To be called before the process's first socket.
void check_environment();

/// How many messages wait in a publisher's queue at most, as the environment has it; 0: no limit. To be
/// called after check_environment.
std::size_t queue_limit();

/// Whether sockets are to speak IPv6, as the environment has it.
bool speaks_ipv6();

}  // namespace tolvan::vesk::tool

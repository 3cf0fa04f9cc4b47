#pragma once

#include <cstddef>
#include <cstdint>

namespace tolvan::relay {

/// Raises the limit of this process's descriptors as far as it may be raised, and keeps the last few of them
/// for the process itself: from now on a connection that would take one of those is refused. To be called
/// before the first hub is made.
/// Throws `std::runtime_error` when the limit is too low for a hub.
void guard_descriptors();

/// For how many more connections there are descriptors now; looks at every open one.
std::size_t room_for_connections();

/// How many connections were refused so far, by all hubs of the process, because there was no descriptor for
/// them. May be called on any thread.
std::uint64_t refused_connections() noexcept;

}  // namespace tolvan::relay

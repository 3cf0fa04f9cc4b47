#pragma once

#include <cstddef>
#include <cstdint>

namespace tolvan::relay {

/// Raises the limit of this process's descriptors as far as it may be raised, and keeps the last few of them,
/// and `also_kept` more, for the process itself: from now on a connection to a hub that would take one of
/// those is refused. To be called before the first hub is made.
/// Throws `std::runtime_error` when the limit is too low for a hub.
void guard_descriptors(std::size_t also_kept = 0);

/// Takes a connection that is not a hub's, by a listener that does not block, onto a descriptor that is kept
/// for the process; neither does the connection block. Gives -1 when there is none, or no descriptor for it:
/// then it is refused. May be called on any thread, after `guard_descriptors`.
int accept_for_the_process(int listener) noexcept;

/// For how many more connections there are descriptors now; looks at every open one.
std::size_t room_for_connections();

/// How many connections were refused so far, by all hubs of the process, because there was no descriptor for
/// them. May be called on any thread.
std::uint64_t refused_connections() noexcept;

}  // namespace tolvan::relay

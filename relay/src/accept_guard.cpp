// libzmq takes connections on a thread of its own, by accept4. When the process has no descriptor left for
// one, its listener on ipc aborts the process, and its listener on TCP is called again and again, because the
// connection still waits. Both only shrug when accept4 says ECONNABORTED: the peer has left in the meantime.
// So this file puts an accept4 in front of the C library's, which the program exports, and which makes that
// come true: it takes the connection and closes it. For that it may use the descriptors that it never gives
// away and, if even those are gone, one that it holds open for the purpose.
#include "tolvan/relay/accept_guard.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tolvan::relay {
namespace {

// What the process opens while it runs: files of /proc for its statistics, for example.
constexpr rlim_t kept_for_the_process = 8;

// About half of it is libzmq's before anybody has connected.
constexpr rlim_t least_limit = 48;

// The system keeps a table up to the highest descriptor, 8 bytes each: not worth it where there are so many.
constexpr int highest_worth_moving_to = 1 << 16;

std::atomic<int> first_kept = std::numeric_limits<int>::max();
std::atomic<int> spare = -1;
std::atomic<std::uint64_t> refused = 0;

// Another thread may do the same: only one of the two is needed.
void hold_spare() {
    int none = -1;
    if (spare != none) return;
    const int opened = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (!spare.compare_exchange_strong(none, opened)) ::close(opened);
}

bool lacks_descriptor(int error) {
    return error == EMFILE || error == ENFILE;
}

// The system call itself: looking the C library's function up could allocate.
int take(int listener, sockaddr* address, socklen_t* length, int flags) {
    return static_cast<int>(::syscall(SYS_accept4, listener, address, length, flags));
}

int take_with_spare(int listener) {
    ::close(spare.exchange(-1));
    return take(listener, nullptr, nullptr, SOCK_CLOEXEC);
}

// -1 when it has gone by itself, or when another thread was quicker to use the spare descriptor: then libzmq
// asks again.
int refuse(int taken) {
    if (taken != -1) {
        ::close(taken);
        ++refused;
    }
    hold_spare();
    errno = ECONNABORTED;
    return -1;
}

rlimit raised_limit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == -1)
        throw std::system_error(errno, std::generic_category(), "getrlimit");
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) == -1)
        throw std::system_error(errno, std::generic_category(), "setrlimit");
    return limit;
}

// Out of the room for connections to a hub.
int moved_to_the_kept(int taken) {
    const int end = first_kept;
    if (taken >= end || end > highest_worth_moving_to) return taken;
    const int moved = ::fcntl(taken, F_DUPFD_CLOEXEC, end);
    ::close(taken);
    return moved;
}

}  // namespace

void guard_descriptors(std::size_t also_kept) {
    const rlim_t limit = raised_limit().rlim_cur;
    const rlim_t needed = least_limit + also_kept;
    if (limit < needed)
        throw std::runtime_error("a hub needs a limit of at least " + std::to_string(needed) +
                                 " descriptors (ulimit -n), and here it is " + std::to_string(limit));
    first_kept = static_cast<int>(
        std::min<rlim_t>(limit - kept_for_the_process - also_kept, std::numeric_limits<int>::max()));
    hold_spare();
}

int accept_for_the_process(int listener) noexcept {
    hold_spare();
    const int taken = take(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (taken != -1) return moved_to_the_kept(taken);
    return lacks_descriptor(errno) ? refuse(take_with_spare(listener)) : -1;
}

std::size_t room_for_connections() {
    const int end = first_kept;
    const auto is_below = [end](const auto& entry) { return std::stoi(entry.path().filename()) < end; };
    const std::filesystem::directory_iterator open_ones("/proc/self/fd");
    const auto used = std::count_if(begin(open_ones), std::filesystem::end(open_ones), is_below);
    // One of them was the iterator's.
    return static_cast<std::size_t>(end - used + 1);
}

std::uint64_t refused_connections() noexcept {
    return refused;
}

}  // namespace tolvan::relay

extern "C" __attribute__((visibility("default"))) int accept4(int listener, sockaddr* address,
                                                              socklen_t* length, int flags) {
    using namespace tolvan::relay;
    hold_spare();
    const int taken = take(listener, address, length, flags);
    if (taken == -1 && lacks_descriptor(errno)) return refuse(take_with_spare(listener));
    return taken < first_kept ? taken : refuse(taken);
}

#include "streams/nonblocking_output.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tolvan::vesk::tool {

namespace {

constexpr std::size_t largest_piece = 1 << 20;  // a disk is waited for, but not for long

mode_t kind_of(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

// O_NONBLOCK on a standard stream itself would hold for all who share its open file, the shell of a terminal
// among them: so a pipe or a terminal is opened once more. A file is written to where the others left off.
wire::descriptor opened_once_more(int fd, mode_t kind) {
    if (kind != S_IFIFO && kind != S_IFCHR) return wire::descriptor();
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    return wire::descriptor(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// Also when it takes nothing any more, which the writing then tells.
bool takes_something(int fd) {
    pollfd asked = {fd, POLLOUT, 0};
    return ::poll(&asked, 1, 0) == 1;
}

}  // namespace

nonblocking_output::nonblocking_output(int shared)
    : given(shared), kind(kind_of(shared)), own(opened_once_more(shared, kind)) {}

nonblocking_output::nonblocking_output(wire::descriptor owned)
    : kind(kind_of(owned.get())), own(std::move(owned)) {}

std::size_t nonblocking_output::put(std::string_view text) {
    std::size_t taken = 0;
    while (taken < text.size()) {
        const std::size_t more = put_piece(text.substr(taken));
        if (more == 0) break;
        taken += more;
    }
    return taken;
}

std::size_t nonblocking_output::put_piece(std::string_view piece) {
    const ssize_t taken = write(piece);
    if (taken >= 0) return static_cast<std::size_t>(taken);
    if (errno == EINTR) return put_piece(piece);
    if (errno != EAGAIN) failure = errno;
    return 0;
}

void nonblocking_output::take_back(std::size_t bytes) const {
    if (own.get() < 0 || kind != S_IFREG) return;
    const off_t end = ::lseek(own.get(), -static_cast<off_t>(bytes), SEEK_CUR);
    if (end >= 0) static_cast<void>(::ftruncate(own.get(), end));
}

// Somebody else's pipe cannot be opened once more: it gets pieces that a pipe takes without waiting when it
// takes anything.
ssize_t nonblocking_output::write(std::string_view piece) const {
    if (kind == S_IFSOCK) return ::send(given, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (own.get() >= 0 || kind == S_IFREG)
        return ::write(descriptor(), piece.data(), std::min(piece.size(), largest_piece));
    if (takes_something(given))
        return ::write(given, piece.data(), std::min<std::size_t>(piece.size(), PIPE_BUF));
    errno = EAGAIN;
    return -1;
}

}  // namespace tolvan::vesk::tool

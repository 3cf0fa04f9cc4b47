#include "terminal/tell.hpp"

#include <climits>
#include <cstdint>
#include <string_view>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tolvan/wire/descriptor.hpp>

#include "terminal/printable.hpp"

namespace tolvan::vesk::tool {

namespace {

mode_t kind_of_stderr() {
    struct stat status {};
    return ::fstat(STDERR_FILENO, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

// O_NONBLOCK on stderr itself would hold for all who share its open file, the shell of a terminal among them:
// so a pipe or a terminal is opened once more. A file is written to where the others left off.
wire::descriptor opened_once_more(mode_t kind) {
    if (kind != S_IFIFO && kind != S_IFCHR) return wire::descriptor();
    return wire::descriptor(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

bool takes_something(int fd) {
    pollfd asked = {fd, POLLOUT, 0};
    return ::poll(&asked, 1, 0) == 1 && (asked.revents & POLLOUT) != 0;
}

/// Standard error, written to by somebody who has no time to wait for it.
class nonblocking_stderr {
  public:
    /// Whether the line was taken; if not the whole of it, the rest goes before the next one.
    bool take(std::string_view line);

  private:
    std::size_t put(std::string_view text) const;
    std::size_t put_piece(std::string_view piece) const;

    mode_t kind = kind_of_stderr();
    wire::descriptor own = opened_once_more(kind);
    std::string rest;
};

bool nonblocking_stderr::take(std::string_view line) {
    rest.erase(0, put(rest));
    if (!rest.empty()) return false;
    const std::size_t taken = put(line);
    if (taken == 0) return false;
    rest = line.substr(taken);
    return true;
}

// In pieces that a pipe takes without waiting when it takes anything: somebody else's pipe cannot be opened
// once more.
std::size_t nonblocking_stderr::put(std::string_view text) const {
    std::size_t taken = 0;
    while (taken < text.size()) {
        const std::size_t more = put_piece(text.substr(taken, PIPE_BUF));
        if (more == 0) break;
        taken += more;
    }
    return taken;
}

std::size_t nonblocking_stderr::put_piece(std::string_view piece) const {
    const int fd = own.get() >= 0 ? own.get() : STDERR_FILENO;
    ssize_t taken = 0;
    if (kind == S_IFSOCK)
        taken = ::send(fd, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    else if (takes_something(fd))
        taken = ::write(fd, piece.data(), piece.size());
    return taken < 0 ? 0 : static_cast<std::size_t>(taken);
}

nonblocking_stderr& standard_error() {
    static nonblocking_stderr only;
    return only;
}

std::uint64_t missed = 0;

}  // namespace

void tell(const std::string& text) {
    tell_what_was_missed();
    if (missed > 0 || !standard_error().take("vesk: " + shown_on(STDERR_FILENO, text) + "\n")) ++missed;
}

void tell_what_was_missed() {
    if (missed > 0 && standard_error().take(fmt::format("vesk: {} messages are missing here\n", missed)))
        missed = 0;
}

}  // namespace tolvan::vesk::tool

#include "streams/input_lines.hpp"

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace tolvan::vesk::tool {

input_lines::~input_lines() {
    end_watch();
}

std::optional<std::string> input_lines::next() {
    const std::size_t line_break = buffer.find('\n', std::max(searched, taken));
    if (line_break == std::string::npos) {
        searched = buffer.size();
        const std::size_t length = buffer.size() - taken;
        if (length <= longest_line && (!end_of_input || length == 0)) return std::nullopt;
    }
    const std::size_t end = std::min(line_break, buffer.size());
    std::string line = buffer.substr(taken, end - taken);
    taken = std::min(end + 1, buffer.size());
    return line;
}

void input_lines::await_more(std::function<void()> callback) {
    if (on_piece) return;
    events.watch_fd(fd, 0, [this](auto, auto) { read_piece(); });
    on_piece = std::move(callback);
}

void input_lines::read_piece() {
    std::array<char, 65536> piece;
    const ssize_t length = ::read(fd.value, piece.data(), piece.size());
    if (length < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (length < 0) throw std::system_error(errno, std::generic_category(), "could not read the input");
    searched -= std::min(searched, taken);
    forgotten += taken;
    buffer.erase(0, std::exchange(taken, 0));
    buffer.append(piece.data(), static_cast<std::size_t>(length));
    end_of_input = length == 0;
    const auto call = std::exchange(on_piece, nullptr);
    events.unwatch_fd(fd);
    call();
}

void input_lines::end_watch() {
    if (std::exchange(on_piece, nullptr)) events.unwatch_fd(fd);
}

}  // namespace tolvan::vesk::tool

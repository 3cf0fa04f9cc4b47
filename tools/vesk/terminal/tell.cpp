#include "terminal/tell.hpp"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "streams/nonblocking_output.hpp"
#include "terminal/printable.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr const char* begin_of_cleared_line = "\r\033[K";

/// Standard error; of a line that it takes a part of the rest goes before the next one.
class lines_to_stderr {
  public:
    /// Whether the line was taken.
    bool take(std::string_view line);

  private:
    nonblocking_output output{STDERR_FILENO};
    std::string rest;
};

bool lines_to_stderr::take(std::string_view line) {
    rest.erase(0, output.put(rest));
    if (!rest.empty()) return false;
    const std::size_t taken = output.put(line);
    if (taken == 0) return false;
    rest = line.substr(taken);
    return true;
}

lines_to_stderr& standard_error() {
    static lines_to_stderr only;
    return only;
}

std::uint64_t missed = 0;
bool line_is_open = false;
std::function<void(const std::string&)> instead;

void tell_line(std::string_view line) {
    tell_what_was_missed();
    if (missed > 0 || !standard_error().take("vesk: " + shown_on(STDERR_FILENO, line) + "\n")) ++missed;
}

}  // namespace

void tell(const std::string& text) {
    if (instead) return instead(text);
    if (std::exchange(line_is_open, false)) standard_error().take(begin_of_cleared_line);
    std::size_t begin = 0;
    do {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        tell_line(std::string_view(text).substr(begin, end - begin));
        begin = end + 1;
    } while (begin < text.size());
}

void leave_line_open() {
    line_is_open = true;
}

void tell_instead(std::function<void(const std::string&)> listener) {
    instead = std::move(listener);
}

void tell_what_was_missed() {
    if (missed > 0 && standard_error().take(fmt::format("vesk: {} messages are missing here\n", missed)))
        missed = 0;
}

}  // namespace tolvan::vesk::tool

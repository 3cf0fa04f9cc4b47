#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include <fmt/format.h>
#include <unistd.h>

#include <tolvan/lumo/v1/stderr_sink.hpp>

namespace tolvan::lumo::v1 {

namespace {

constexpr std::size_t longest_line = 5000;  // a whole text, and what stands before it

const char* name_of(level severity) {
    constexpr std::array names = {"error", "warning", "statistics", "trace"};
    return names[static_cast<std::size_t>(std::clamp(severity, error, trace))];
}

void write_to_stderr(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
        if (written < 0 && errno != EINTR) return;
        if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
    }
}

void write_line(const log_entry& entry) {
    std::array<char, longest_line> line;
    const auto end =
        fmt::format_to_n(line.data(), line.size() - 1, "{} {}:{} {}: {}", name_of(entry.severity), entry.file,
                         entry.line, entry.function, entry.text)
            .out;
    *end = '\n';
    write_to_stderr({line.data(), static_cast<std::size_t>(end + 1 - line.data())});
}

}  // namespace

sink_registration log_to_stderr(level most_verbose) {
    return add_sink(most_verbose, write_line);
}

}  // namespace tolvan::lumo::v1

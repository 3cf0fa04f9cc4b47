#include "replaying/recording_source.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tolvan/relay/hub.hpp>

namespace tolvan::vesk::tool {

namespace {

// A byte of data takes 6 at most, as "\u0001"; topics are short.
constexpr std::size_t longest_line = 7 * relay::hub::largest_message;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

wire::descriptor opened(const recording_source::options& given) {
    if (given.file == "-") return wire::descriptor();
    wire::descriptor file(::open(given.file.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) fail("could not open '" + given.file + "'");
    if (given.loop && ::lseek(file.get(), 0, SEEK_SET) < 0)
        fail("'" + given.file + "' cannot be read again, as --loop does");
    return file;
}

}  // namespace

recording_source::recording_source(session& on, const options& given)
    : process(on), chosen(given), wanted(given.topics), file(opened(given)) {
    input.emplace(process.loop(), descriptor(), longest_line);
}

int recording_source::descriptor() const {
    return file.get() >= 0 ? file.get() : STDIN_FILENO;
}

std::optional<numbered_message> recording_source::next() {
    if (!waiting) read_ahead();
    if (!waiting || due() > process.loop().now()) return std::nullopt;
    recorded_message message = *std::exchange(waiting, std::nullopt);
    return numbered_message{lines_of_earlier_rounds + reader.lines(), published_topic(message.topic),
                            std::move(message.data)};
}

void recording_source::read_ahead() {
    while (const auto line = input->next()) {
        if (line->size() > longest_line)
            throw refused_message("line " + std::to_string(reader.lines() + 1) + " is longer than 112 MiB");
        auto message = reader.take(*line);
        if (!message || !wanted.contains(message->topic)) continue;
        found_any = true;
        waiting = std::move(message);
        return;
    }
    if (input->at_end() && !ended) end_round();
}

// With nothing to publish, a loop would spin.
void recording_source::end_round() {
    const std::string note = reader.end();
    if (!note.empty() && rounds == 1) tell(note);
    if (!found_any && !chosen.topics.empty())
        tell("the recording has no message of a topic that was asked for");
    if (chosen.loop && found_any) return begin_again();
    ended = true;
}

void recording_source::begin_again() {
    if (origin_ms) *origin_ms += reader.last_t() * 1000 / chosen.speed;
    lines_of_earlier_rounds += reader.lines();
    ++rounds;
    reader = {};
    if (::lseek(file.get(), 0, SEEK_SET) < 0) fail("could not read '" + chosen.file + "' again");
    input.emplace(process.loop(), descriptor(), longest_line);
}

void recording_source::await_more(std::function<void()> callback) {
    if (!waiting) return input->await_more(std::move(callback));
    if (!next_due || !next_due->pending)
        next_due = process.after(due() - process.loop().now(), std::move(callback));
}

// Counted from the start, so that no delay adds to another.
recording_source::milliseconds recording_source::due() {
    const milliseconds now = process.loop().now();
    if (chosen.fast) return now;
    const double ms = waiting->t * 1000 / chosen.speed;
    if (!origin_ms) origin_ms = static_cast<double>(now.count()) - ms;
    return milliseconds(std::llround(std::ceil(*origin_ms + ms)));
}

// The bus cuts a topic behind its first ":".
std::string recording_source::published_topic(const std::string& topic) const {
    const std::string sent = chosen.prefix + topic;
    return sent.find(':') == std::string::npos ? sent : ":" + sent;
}

std::string recording_source::named(const number_ranges& numbers) const {
    if (chosen.loop) return "lines of " + std::to_string(rounds) + " rounds";
    return (numbers.count() == 1 ? "line " : "lines ") + numbers.text();
}

std::vector<std::string> recording_source::published_beginnings() const {
    std::vector<std::string> topics = wanted.filters();
    for (auto& topic : topics) topic.insert(0, chosen.prefix);
    return topics;
}

std::optional<double> recording_source::share() const {
    struct stat status {};
    if (::fstat(descriptor(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0)
        return std::nullopt;
    return std::min(1.0, static_cast<double>(input->taken_bytes()) / static_cast<double>(status.st_size));
}

}  // namespace tolvan::vesk::tool

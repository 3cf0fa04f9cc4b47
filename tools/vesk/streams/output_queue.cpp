// The event loop tells when something can be read. An epoll set is readable when something has happened to
// what is in it: so it tells when the output takes more, and, without being asked, that the reader has gone.
#include "streams/output_queue.hpp"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>
#include <sys/epoll.h>

#include "exit_code.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr seconds patience_at_end{2};

}  // namespace

output_queue::output_queue(event_process& on, nonblocking_output to, std::string name)
    : process(on), output(std::move(to)), shown_name(std::move(name)) {
    write_behind_others();
    watch();
}

output_queue::~output_queue() {
    if (readiness.get() >= 0) process.loop().unwatch_fd({readiness.get()});
}

// A plain file cannot be watched, and need not be.
void output_queue::watch() {
    wire::descriptor set(::epoll_create1(EPOLL_CLOEXEC));
    if (set.get() < 0) throw std::system_error(errno, std::generic_category(), "epoll_create1");
    epoll_event the_end{.events = EPOLLONESHOT, .data = {}};
    if (::epoll_ctl(set.get(), EPOLL_CTL_ADD, output.descriptor(), &the_end) != 0) return;
    process.loop().watch_fd({set.get()}, 0, [this](auto, auto) { see_event(); });
    readiness = std::move(set);
}

// That the reader has gone is told in any case.
void output_queue::await(bool room) {
    awaits_room = room;
    epoll_event wanted{.events = (room ? EPOLLOUT : 0U) | EPOLLONESHOT, .data = {}};
    ::epoll_ctl(readiness.get(), EPOLL_CTL_MOD, output.descriptor(), &wanted);
}

// Writing tells what has happened; without anything to write it can only be that the reader has gone.
void output_queue::see_event() {
    epoll_event event{};
    if (::epoll_wait(readiness.get(), &event, 1, 0) != 1 || has_failed) return;
    if (waiting == 0) return fail(EPIPE);
    await(false);
    flush();
}

std::string& output_queue::last_piece() {
    if (pieces.empty() || pieces.back().size() >= piece_size) pieces.emplace_back();
    return pieces.back();
}

void output_queue::flush() {
    while (waiting > 0 && !awaits_room && !has_failed) write_first();
    if (code_at_end && waiting == 0) process.finish(*code_at_end);
}

void output_queue::write_first() {
    const auto rest = std::string_view(pieces.front()).substr(written_of_first);
    const std::size_t taken = output.put(rest);
    const bool is_whole = taken == rest.size();
    note_written(taken);
    if (output.error() != 0) return fail(output.error());
    if (!is_whole) await(true);
}

// The last piece is kept, to be filled again.
void output_queue::note_written(std::size_t taken) {
    waiting -= taken;
    written_of_first += taken;
    if (written_of_first < pieces.front().size()) return;
    written_of_first = 0;
    if (pieces.size() > 1)
        pieces.pop_front();
    else
        pieces.front().clear();
}

void output_queue::finish(int code) {
    if (!code_at_end) code_at_end = code;
    flush();
}

void output_queue::finish_soon(int code) {
    if (patience) return end_at_once();
    finish(code);
    patience = process.after(patience_at_end, [this] { end_at_once(); });
}

void output_queue::end_at_once() {
    if (waiting > 0)
        process.finish(failed, fmt::format("{} does not take the last {} bytes", shown_name, waiting));
    process.finish(*code_at_end);
}

void output_queue::fail(int error) {
    has_failed = true;
    output.take_back(written_of_broken_line().size());
    process.finish(
        failed, fmt::format("could not write to {}: {}", shown_name, std::generic_category().message(error)));
}

std::string_view output_queue::written_of_broken_line() const {
    if (pieces.empty()) return {};
    const auto written = std::string_view(pieces.front()).substr(0, written_of_first);
    return written.substr(written.rfind('\n') + 1);
}

std::uint64_t output_queue::unwritten_lines() const {
    std::uint64_t lines = 0;
    for (const auto& piece : pieces)
        lines += static_cast<std::uint64_t>(std::count(piece.begin(), piece.end(), '\n'));
    if (pieces.empty()) return lines;
    const auto end_of_written = pieces.front().begin() + static_cast<std::ptrdiff_t>(written_of_first);
    return lines - static_cast<std::uint64_t>(std::count(pieces.front().begin(), end_of_written, '\n'));
}

}  // namespace tolvan::vesk::tool

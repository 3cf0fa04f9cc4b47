#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "streams/nonblocking_output.hpp"
#include "terminal/event_process.hpp"

namespace tolvan::vesk::tool {

/// Lines of a subcommand that must not wait for its reader: a queue before a descriptor. What does not fit
/// into it is dropped, whole messages at a time, and counted. When the reader has gone, or writing fails, it
/// ends the process with a word about it and the exit status `failed`.
class output_queue {
  public:
    static constexpr std::size_t limit = 64 * 1024 * 1024;  ///< bytes; the last message may be beyond

    /// `name` is for messages to people: "stdout".
    output_queue(event_process& on, nonblocking_output to, std::string name);
    output_queue(const output_queue&) = delete;
    output_queue& operator=(const output_queue&) = delete;
    ~output_queue();

    /// Has `append` append one message, of whole lines, to the text that it is called with, unless the queue
    /// is full; gives whether it was taken. Writes large pieces at once, what is less with `flush`.
    template <typename Append>
    bool add(Append append);

    /// The same, also when the queue is full.
    template <typename Append>
    void add_anyway(Append append);

    /// Writes what can be written now; the rest follows by itself.
    void flush();

    /// Has everything written, then ends the process with that exit status, however long the reader takes.
    /// Nothing is to be added any more. The first exit status counts.
    void finish(int code);

    /// The same for somebody who does not wait: after some seconds, or at the second call, it ends in any
    /// case, with `failed` when something is left.
    void finish_soon(int code);

    /// Whether one of the two was called.
    bool is_ending() const { return code_at_end.has_value(); }

    /// Messages that were dropped.
    std::uint64_t dropped() const { return refused; }

    /// Lines that were added and are not written, or not whole.
    std::uint64_t unwritten_lines() const;

  private:
    static constexpr std::size_t piece_size = 128 * 1024;

    std::string& last_piece();
    void write_first();
    void note_written(std::size_t taken);
    void watch();
    void await(bool room);
    void see_event();
    void end_at_once();
    void fail(int error);
    std::string_view written_of_broken_line() const;

    event_process& process;
    nonblocking_output output;
    const std::string shown_name;
    std::deque<std::string> pieces;  ///< of whole messages; of the first one a part may be written
    std::size_t written_of_first = 0;
    std::size_t waiting = 0;  ///< bytes
    std::uint64_t refused = 0;
    bool awaits_room = false;
    bool has_failed = false;
    wire::descriptor readiness;  ///< an epoll set of the one descriptor; none when that is always ready
    std::optional<int> code_at_end;
    event_process::timer patience;  ///< of somebody who does not wait
};

template <typename Append>
bool output_queue::add(Append append) {
    const bool has_room = waiting < limit;
    if (has_room)
        add_anyway(append);
    else
        ++refused;
    return has_room;
}

template <typename Append>
void output_queue::add_anyway(Append append) {
    std::string& piece = last_piece();
    const std::size_t before = piece.size();
    append(piece);
    waiting += piece.size() - before;
    if (piece.size() >= piece_size) flush();
}

}  // namespace tolvan::vesk::tool

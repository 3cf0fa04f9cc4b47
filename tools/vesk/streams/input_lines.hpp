#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <tolvan/event_loop_v1.hpp>

namespace tolvan::vesk::tool {

/// The lines of a descriptor that is a terminal, a pipe or a file, read from the event loop a piece at a
/// time.
class input_lines {
  public:
    /// A line of more than `longest` bytes is not read to its end.
    input_lines(event_loop_v1& loop, int descriptor, std::size_t longest)
        : events(loop), fd{descriptor}, longest_line(longest) {}
    input_lines(const input_lines&) = delete;
    input_lines& operator=(const input_lines&) = delete;
    ~input_lines();

    /// Takes the next line that has been read, without its line break; of one that is too long what has been
    /// read of it, which is too long as well. None when there is none yet, or no more.
    std::optional<std::string> next();

    /// Whether everything has been read and taken.
    bool at_end() const { return end_of_input && taken == buffer.size(); }

    /// How much has been taken, in bytes.
    std::uint64_t taken_bytes() const { return forgotten + taken; }

    /// Reads one more piece as soon as there is one, then calls `callback`. Does nothing while a piece is
    /// awaited. A read error is thrown out of the event loop as std::system_error.
    void await_more(std::function<void()> callback);

  private:
    void read_piece();
    void end_watch();

    event_loop_v1& events;
    event_loop_v1::file_desc fd;
    std::size_t longest_line;
    std::function<void()> on_piece;
    std::string buffer;
    std::uint64_t forgotten = 0;  ///< bytes that the buffer no longer has
    std::size_t taken = 0;        ///< up to here the buffer has been given out
    std::size_t searched = 0;     ///< up to here it has no line break
    bool end_of_input = false;
};

}  // namespace tolvan::vesk::tool

#pragma once

#include <cstddef>
#include <string_view>

#include <sys/types.h>

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::vesk::tool {

/// A descriptor that is written to by somebody who has no time to wait for its reader. A disk is waited for.
class nonblocking_output {
  public:
    /// A standard stream, or another descriptor that is not the caller's alone.
    explicit nonblocking_output(int shared);

    /// A descriptor that was opened with O_NONBLOCK.
    explicit nonblocking_output(wire::descriptor owned);

    /// Writes what is taken now, and gives how many bytes that was.
    std::size_t put(std::string_view text);

    /// The errno of a writing that did not just have to wait; 0 when there was none.
    int error() const { return failure; }

    /// Writable when `put` can go on.
    int descriptor() const { return own.get() >= 0 ? own.get() : given; }

    /// Takes back the last so many bytes that went to a plain file of one's own.
    void take_back(std::size_t bytes) const;

  private:
    std::size_t put_piece(std::string_view piece);
    ssize_t write(std::string_view piece) const;

    int given = -1;
    mode_t kind;
    wire::descriptor own;
    int failure = 0;
};

}  // namespace tolvan::vesk::tool

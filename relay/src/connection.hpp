#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include <sys/types.h>

namespace tolvan::relay {

using steady = std::chrono::steady_clock;

/// A peer's connection, seen from outside: the descriptor belongs to libzmq, which may have closed it, and
/// its number may be another's by now. The inode number of the socket tells.
class connection {
  public:
    /// Takes down whose it is while it is sure to be there.
    connection(int descriptor, steady::time_point now);

    /// "process 4711 (display)" over ipc, "127.0.0.1:50212" over tcp.
    const std::string& peer() const noexcept { return name; }

    /// Sees what the kernel could not get rid of, whether it has room for more, and when the peer gave its
    /// last sign of life.
    void look(steady::time_point now);

    /// For how long the kernel has held the very same bytes, which the peer does not take, and had no room
    /// for more; 0 when it has.
    steady::duration stalled(steady::time_point now) const {
        return full ? now - moved : steady::duration(0);
    }

    /// For how long the kernel has been seen to have no room whenever one looked.
    steady::duration behind(steady::time_point now) const {
        return full ? now - had_room : steady::duration(0);
    }

    /// For how long the peer has given no sign of life.
    steady::duration silent(steady::time_point now) const { return now - last_sign; }

    /// Ends the connection: libzmq finds it closed by the peer. Does nothing when it has ended. False, and to
    /// be tried again, when there is no descriptor to do it with.
    bool cut();

    /// Whether its handshake has surely succeeded.
    bool is_greeted() const noexcept { return greeted; }

    /// Remembers that it has.
    void greet() noexcept { greeted = true; }

    /// Whether `cut` was called.
    bool is_cut() const noexcept { return was_cut; }

    /// Whether `give_up` was called since the peer was last seen to have taken something.
    bool is_given_up() const noexcept { return given_up; }

    /// Remembers that messages for the peer are being dropped.
    void give_up() noexcept { given_up = true; }

  private:
    void note_unsent(int bytes, steady::time_point now);

    int number;
    bool over_tcp;
    ino_t inode;
    std::string name;
    int unsent = 0;
    bool full = false;
    bool greeted = false;
    bool was_cut = false;
    bool given_up = false;
    steady::time_point moved, had_room, last_sign;
};

}  // namespace tolvan::relay

#pragma once

#include <cstdlib>
#include <memory>

#include <czmq.h>

#include <tolvan/event_loop_v1.hpp>

namespace tolvan::vesk::hub {

/// The one owner of a ZeroMQ socket. Used by one thread only, the event loop's.
class socket {
  public:
    /// Creates a socket of a ZeroMQ type, such as ZMQ_SUB. Throws std::runtime_error when czmq gives none.
    explicit socket(int type);
    socket(const socket&) = delete;
    socket& operator=(const socket&) = delete;

    /// Closes the socket owned so far and takes over the other's.
    socket& operator=(socket&& other) noexcept;
    ~socket();

    /// The descriptor to watch for readability. It tells that the socket's state may have changed and nothing
    /// else: after every wake-up read until `poll_events` shows no more input, or it will not signal again.
    event_loop_v1::file_desc file_desc() const;

    /// ZeroMQ's event bits: 1 a message can be read, 2 one can be sent, 4 an error is pending. Asking takes
    /// the descriptor's signal away, so whoever asks must go on to read.
    event_loop_v1::poll_events poll_events() const;

    /// The socket for czmq's calls; stays owned here.
    zsock_t* get() const { return handle; }

  private:
    zsock_t* handle;
};

struct message_deleter {
    void operator()(zmsg_t* message) const { zmsg_destroy(&message); }
};
/// Owner of a ZeroMQ message.
using message_ptr = std::unique_ptr<zmsg_t, message_deleter>;

struct text_deleter {
    void operator()(char* text) const { std::free(text); }
};
/// Owner of a text that czmq has allocated.
using text_ptr = std::unique_ptr<char, text_deleter>;

}  // namespace tolvan::vesk::hub

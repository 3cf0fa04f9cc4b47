#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <zmq.hpp>

namespace tolvan::relay {

/// Counts the bytes of tracked messages that still lie in any queue of libzmq, each message once, however
/// many queues hold it. Must outlive the context of the sockets that the messages go through.
class kept_bytes {
  public:
    /// Adds `bytes` until libzmq lets go of `frame` in the last queue, on whatever thread. The frame's
    /// content stays the same.
    void track(zmq::message_t& frame, std::size_t bytes);

    std::int64_t now() const noexcept { return total.load(std::memory_order_relaxed); }

  private:
    struct tracked;
    static void release(void* content, void* hint) noexcept;

    std::atomic<std::int64_t> total = 0;
};

}  // namespace tolvan::relay

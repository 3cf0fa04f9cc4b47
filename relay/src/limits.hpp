#pragma once

#include <chrono>
#include <cstdint>

namespace tolvan::relay {

// A subscriber that has stopped reading answers no heartbeats once its queue is full, and when it is taken
// for dead what the hub keeps for it is dropped: the time-out is long enough for a stalled application.
constexpr std::chrono::seconds heartbeat_interval{10};
constexpr std::chrono::seconds heartbeat_timeout{60};

// How long unsent messages hold up the end while a subscriber does not read. Not 0: a session that is cut off
// in the middle of a message trips an assertion inside libzmq 4.3.4 when its peer disconnects at that moment,
// and at the end of a system everybody leaves together. While it lingers it takes that peer's leave calmly.
constexpr std::chrono::milliseconds subscriber_linger{200};

// In messages, of each publisher. The relaying thread is faster than the one that receives, so that it fills
// only while that thread waits.
constexpr int receive_mark = 10'000;

// libzmq's marks count messages. A message up to this cost is paid for by the mark, a larger one is counted
// in bytes. The mark itself never changes: a mark that is lowered counts as full everybody who has not taken
// half of the former mark since their last receipt, however empty their queue is; and who is dropped from
// with an empty queue is never sent anything again.
constexpr std::int64_t counted_cost = 512;

/// The mark of each subscriber's queue, in messages.
constexpr int send_mark(std::int64_t queue_bytes) {
    return static_cast<int>(queue_bytes / counted_cost);
}

}  // namespace tolvan::relay

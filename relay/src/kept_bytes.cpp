#include "kept_bytes.hpp"

#include <memory>

namespace tolvan::relay {

// A short frame lies inside its message object, so that the object has to stand still.
struct kept_bytes::tracked {
    zmq::message_t original;
    std::atomic<std::int64_t>& total;
    std::int64_t bytes;
};

void kept_bytes::track(zmq::message_t& frame, std::size_t bytes) {
    auto kept = std::make_unique<tracked>(tracked{{}, total, static_cast<std::int64_t>(bytes)});
    kept->original.swap(frame);
    frame.rebuild(kept->original.data(), kept->original.size(), release, kept.get());
    total.fetch_add(kept.release()->bytes, std::memory_order_relaxed);
}

void kept_bytes::release(void* /*content*/, void* hint) noexcept {
    const std::unique_ptr<tracked> gone(static_cast<tracked*>(hint));
    gone->total.fetch_sub(gone->bytes, std::memory_order_relaxed);
}

}  // namespace tolvan::relay

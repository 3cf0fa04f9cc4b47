#pragma once

namespace tolvan::bench {

/// What the calling thread has done on the heap, in C and in C++, in any library.
struct heap_use {
    long allocations;
    long live_bytes;  ///< taken and not given back, as the allocator rounds them
};

/// Begins to count for the calling thread.
void start_counting();
/// Ends it, and gives what was counted.
heap_use stop_counting();

/// What a call does on the heap.
template <typename Call>
heap_use heap_use_of(Call call) {
    start_counting();
    call();
    return stop_counting();
}

}  // namespace tolvan::bench

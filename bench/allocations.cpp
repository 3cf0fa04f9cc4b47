// Stands in for malloc and its relatives, counts, and passes on to those of glibc.
#include "allocations.hpp"

#include <cstddef>

#include <malloc.h>

extern "C" {
void* __libc_malloc(std::size_t size);                     // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* old, std::size_t size);         // NOLINT(bugprone-reserved-identifier)
void __libc_free(void* freed);                             // NOLINT(bugprone-reserved-identifier)
}

namespace {

thread_local tolvan::bench::heap_use use{};
thread_local bool counting = false;

long size_of(void* block) {
    return static_cast<long>(malloc_usable_size(block));
}

void* counted(void* made) {
    if (counting) {
        ++use.allocations;
        use.live_bytes += size_of(made);
    }
    return made;
}

}  // namespace

void tolvan::bench::start_counting() {
    use = {};
    counting = true;
}

tolvan::bench::heap_use tolvan::bench::stop_counting() {
    counting = false;
    return use;
}

extern "C" {

void* malloc(std::size_t size) noexcept {
    return counted(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    return counted(__libc_calloc(count, size));
}

void* realloc(void* old, std::size_t size) noexcept {
    if (counting) use.live_bytes -= size_of(old);
    return counted(__libc_realloc(old, size));
}

void free(void* freed) noexcept {
    if (counting) use.live_bytes -= size_of(freed);
    __libc_free(freed);
}

}  // extern "C"

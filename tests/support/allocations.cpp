#include "allocations.hpp"

#include <cstdlib>
#include <cstring>

#include <malloc.h>

using namespace tolvan::test;

// What is used after it was freed shall not look as it did.
static void spoil_and_free(void* memory) noexcept {
    if (memory != nullptr) std::memset(memory, 0xDD, ::malloc_usable_size(memory));
    asm volatile("" : : "r"(memory) : "memory");  // the compiler leaves out what nobody reads
    std::free(memory);
}

[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = ++allocations == failing_allocation ? nullptr : std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
// libzmq's own, whose failure ends the process.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    spoil_and_free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    spoil_and_free(memory);
}

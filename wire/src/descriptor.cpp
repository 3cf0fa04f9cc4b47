#include <utility>

#include <unistd.h>

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::wire {

descriptor::descriptor(descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}

descriptor& descriptor::operator=(descriptor&& other) noexcept {
    std::swap(number, other.number);
    return *this;
}

descriptor::~descriptor() {
    if (number >= 0) ::close(number);
}

}  // namespace tolvan::wire

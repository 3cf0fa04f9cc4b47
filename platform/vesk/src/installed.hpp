#pragma once

#include <memory>
#include <stdexcept>
#include <string>

namespace tolvan::vesk::v1 {

/// The backend in a slot, kept alive for the call that the caller is about to make, since callbacks may
/// replace it meanwhile. Throws std::logic_error that names `operation` when the slot is empty.
template <typename Backend>
std::shared_ptr<Backend> installed(const std::shared_ptr<Backend>& slot, const char* operation) {
    if (!slot)
        throw std::logic_error(std::string(operation) +
                               ": no vesk backend is installed; make a tolvan::vesk::v1::connection first");
    return slot;
}

}  // namespace tolvan::vesk::v1

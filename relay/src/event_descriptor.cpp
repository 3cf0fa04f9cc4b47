#include "event_descriptor.hpp"

#include <cerrno>
#include <system_error>

#include <sys/eventfd.h>

namespace tolvan::relay {

event_descriptor::event_descriptor() : held(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (held.get() == -1) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void event_descriptor::raise() noexcept {
    eventfd_write(held.get(), 1);
}

void event_descriptor::lower() noexcept {
    eventfd_t raised = 0;
    eventfd_read(held.get(), &raised);
}

}  // namespace tolvan::relay

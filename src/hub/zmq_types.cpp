#include <stdexcept>
#include <utility>

#include <tolvan/vesk/hub/zmq_types.hpp>

namespace tolvan::vesk::hub {

socket::socket(int type) : handle(zsock_new(type)) {
    if (handle == nullptr) throw std::runtime_error("could not create ZMQ publishing socket");
}

socket& socket::operator=(socket&& other) noexcept {
    if (this == &other) return *this;
    zsock_destroy(&handle);
    handle = std::exchange(other.handle, nullptr);
    return *this;
}

socket::~socket() {
    zsock_destroy(&handle);
}

event_loop_v1::file_desc socket::file_desc() const {
    return {zsock_fd(handle)};
}

event_loop_v1::poll_events socket::poll_events() const {
    return {static_cast<std::int16_t>(zsock_events(handle))};
}

}  // namespace tolvan::vesk::hub

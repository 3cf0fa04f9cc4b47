#include "zmq_handles.hpp"

#include <stdexcept>

#include <zmq.h>

namespace tolvan::relay {
namespace {

int checked(int result) {
    if (result == -1) throw std::runtime_error(zmq_strerror(errno));
    return result;
}

void* checked(void* handle) {
    if (handle == nullptr) throw std::runtime_error(zmq_strerror(errno));
    return handle;
}

}  // namespace

zmq_context::zmq_context() : handle(checked(zmq_ctx_new())) {}

void zmq_context::shut_down() noexcept {
    zmq_ctx_shutdown(handle.get());
}

void zmq_context::terminate::operator()(void* context) const noexcept {
    uninterrupted([context] { return zmq_ctx_term(context); });
}

zmq_socket::zmq_socket(const zmq_context& context, int type)
    : handle(checked(::zmq_socket(context.get(), type))) {
    set(ZMQ_LINGER, 0);
}

void zmq_socket::close::operator()(void* socket) const noexcept {
    zmq_close(socket);
}

void zmq_socket::set(int option, int value) {
    checked(zmq_setsockopt(handle.get(), option, &value, sizeof value));
}

void zmq_socket::set(int option, std::int64_t value) {
    checked(zmq_setsockopt(handle.get(), option, &value, sizeof value));
}

void zmq_socket::subscribe_to_everything() {
    checked(zmq_setsockopt(handle.get(), ZMQ_SUBSCRIBE, "", 0));
}

void zmq_socket::bind(const std::string& endpoint) {
    checked(zmq_bind(handle.get(), endpoint.c_str()));
}

void zmq_socket::connect(const std::string& endpoint) {
    checked(zmq_connect(handle.get(), endpoint.c_str()));
}

std::string zmq_socket::last_endpoint() const {
    std::string text(1024, '\0');
    std::size_t size = text.size();
    checked(zmq_getsockopt(handle.get(), ZMQ_LAST_ENDPOINT, text.data(), &size));
    return text.c_str();
}

void zmq_socket::send(std::string_view frame) {
    checked(uninterrupted([&] { return zmq_send(handle.get(), frame.data(), frame.size(), 0); }));
}

std::uint64_t zmq_socket::receive_number() {
    std::uint64_t number = 0;
    const int size =
        checked(uninterrupted([&] { return zmq_recv(handle.get(), &number, sizeof number, 0); }));
    if (size != sizeof number) throw std::runtime_error("a frame of another size than a 64-bit number's");
    return number;
}

}  // namespace tolvan::relay

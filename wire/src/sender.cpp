#include <chrono>

#include <tolvan/vesk/hub/hub_message.hpp>
#include <tolvan/wire/connecting.hpp>
#include <tolvan/wire/sender.hpp>

namespace tolvan::wire {

namespace {

vesk::hub::metadata_t metadata_of_now() {
    using std::chrono::milliseconds;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return {.timestamp_ms = std::chrono::duration_cast<milliseconds>(now).count()};
}

}  // namespace

sender::sender(zmq::context_t& context, const std::string& endpoint, bool ipv6)
    : socket(context, zmq::socket_type::pub) {
    connect_to(socket, endpoint, ipv6);
}

void sender::send(std::string_view topic, std::string_view data) {
    const auto metadata = metadata_of_now();
    socket.send(zmq::buffer(topic), zmq::send_flags::sndmore);
    socket.send(zmq::buffer(data), zmq::send_flags::sndmore);
    socket.send(zmq::buffer(&metadata, sizeof metadata));
}

}  // namespace tolvan::wire

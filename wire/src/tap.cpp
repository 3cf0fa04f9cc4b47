// A ZeroMQ socket's descriptor signals a change once; whatever looks at the socket takes the signal away. So
// after each look the tap reads until nothing is left. It does so in batches, and between two of them the
// loop takes a turn, by a timer of 0 ms: a flood of messages delays the loop's other work by one batch. The
// timer is made before the first message is read, and so remains when the receiver throws.
#include <utility>

#include <tolvan/wire/connecting.hpp>
#include <tolvan/wire/tap.hpp>

namespace tolvan::wire {

namespace {

constexpr int messages_per_turn = 1000;
constexpr std::size_t bytes_per_turn = 16 * 1024 * 1024;
constexpr int queued_messages = 100'000;  // what may wait in the socket while the loop is busy
constexpr event_loop_v1::milliseconds at_once{0};

std::string_view text_of(const zmq::message_t& frame) {
    return {static_cast<const char*>(frame.data()), frame.size()};
}

}  // namespace

tap::tap(event_loop_v1& loop, const options& given, callbacks called)
    : events(loop), call(std::move(called)) {
    connect(given);
    notification = {socket.get(zmq::sockopt::fd)};
    connection_notification = {connection.readable().get(zmq::sockopt::fd)};
    events.watch_fd(notification, 0, [this](auto, auto) { read(); });
    events.watch_fd(connection_notification, 0, [this](auto, auto) { read_events(); });
    read_soon();
}

tap::~tap() {
    events.unwatch_fd(notification);
    events.unwatch_fd(connection_notification);
}

void tap::connect(const options& given) {
    socket.set(zmq::sockopt::rcvhwm, queued_messages);
    socket.set(zmq::sockopt::sndhwm, queued_messages);  // filters are messages too
    connect_to(socket, given.endpoint, given.ipv6);
}

// A filter that goes to a connection whose end the socket has not heard of yet would be sent again in another
// order; to look for events is to hear of it.
void tap::subscribe(const std::string& topic_prefix) {
    static_cast<void>(socket.get(zmq::sockopt::events));
    socket.set(zmq::sockopt::subscribe, topic_prefix);
    read_soon();
}

void tap::unsubscribe(const std::string& topic_prefix) {
    socket.set(zmq::sockopt::unsubscribe, topic_prefix);
    read_soon();
}

void tap::read_soon() {
    next_read = events.create_timer("tap", at_once, at_once, [this] {
        read_events();
        read();
    });
}

void tap::read() {
    read_soon();
    bytes_of_turn = 0;
    for (int taken = 0; taken < messages_per_turn && bytes_of_turn < bytes_per_turn; ++taken) {
        if (deliver_next()) continue;
        next_read.reset();
        if (call.idle) call.idle();
        return;
    }
}

void tap::read_events() {
    while (const auto event = connection.next()) {
        if (event->what == connection_event::kind::greeted && call.connected) call.connected();
        if (event->what == connection_event::kind::gone && call.lost) call.lost();
    }
}

bool tap::deliver_next() {
    const std::size_t count = receive_frames();
    bytes_of_turn += frames[0].size() + frames[1].size();
    if (count >= 2)
        call.message({.topic = text_of(frames[0]),
                      .data = text_of(frames[1]),
                      .stamp_ms = count > 2 ? stamp_of(text_of(frames[2])) : std::nullopt});
    return count > 0;
}

// Frames after the third have no meaning; they are taken off the socket one at a time.
std::size_t tap::receive_frames() {
    std::size_t count = 0;
    const zmq::message_t* last = nullptr;
    do {
        zmq::message_t& frame = count < frames.size() ? frames.at(count) : surplus;
        if (!socket.recv(frame, zmq::recv_flags::dontwait)) return 0;
        last = &frame;
        ++count;
    } while (last->more());
    return count;
}

}  // namespace tolvan::wire

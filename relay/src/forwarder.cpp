#include "forwarder.hpp"

#include <malloc.h>

#include "limits.hpp"

namespace tolvan::relay {
namespace {

using namespace std::chrono_literals;

// What is polled, by index; messages stand last, for at times nobody wants to know of them.
enum : std::size_t { subscriptions, told_to_end, publisher_events, subscriber_events };

// Between two looks at everything else.
constexpr int longest_burst = 200;

constexpr auto idle_wait = 1s;

// After a jam, until its memory goes back to the system: what libzmq frees, it frees a little later.
constexpr auto calm = 1s;

// A message object of libzmq holds so much by itself; more lies in memory of its own, with something around.
constexpr std::size_t inline_bytes = 33;
constexpr std::size_t memory_around = 56;

// Messages of more frames are rare, and their objects not worth keeping.
constexpr std::size_t frames_to_spare = 16;

std::size_t cost_of(const zmq::message_t& frame) {
    const std::size_t size = frame.size();
    return sizeof frame + (size > inline_bytes ? size + memory_around : 0);
}

// Written by one thread, so that adding needs no more than a plain addition.
void add(std::atomic<std::uint64_t>& counter, std::uint64_t amount) {
    counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}

}  // namespace

forwarder::forwarder(const surroundings& world)
    : given(world),
      watched{{given.to.handle(), 0, ZMQ_POLLIN, 0},
              {nullptr, given.end, ZMQ_POLLIN, 0},
              {given.publishers.readable().handle(), 0, ZMQ_POLLIN, 0},
              {given.subscribers.readable().handle(), 0, ZMQ_POLLIN, 0},
              {given.from.handle(), 0, ZMQ_POLLIN, 0}},
      frames(frames_to_spare) {}

void forwarder::run() {
    bool more = false;
    while (!ending) {
        zmq::poll(watched.data(), watched.size(), more ? 0ms : idle_wait);
        add(given.counted.turns, 1);
        follow_connections();
        more = relay_burst();
        if (!more) give_memory_back();
    }
}

// True when there may be more.
bool forwarder::relay_burst() {
    for (int i = 0; i < longest_burst && !ending; ++i) {
        if (!receive()) return false;
        pass_on();
    }
    return true;
}

// A message arrives as a whole: behind its first frame the others are there.
bool forwarder::receive() {
    std::size_t bytes = 0;
    used = 0;
    do {
        if (used == frames.size()) frames.emplace_back();
        if (!given.from.recv(frames[used], zmq::recv_flags::dontwait)) return false;
        bytes += frames[used].size();
    } while (frames[used++].more());
    add(given.counted.messages_in, 1);
    add(given.counted.bytes_in, bytes);
    return true;
}

// Whether a subscriber has room is asked with the first frame; libzmq counts whole messages, so that the
// others find the same room.
void forwarder::pass_on() {
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < used; ++i) bytes += frames[i].size();
    track_large();
    if (!send_first_frame()) drop_for_the_full();
    for (std::size_t i = 1; i < used; ++i) send_frame(i);
    if (frames.size() > frames_to_spare) frames.resize(frames_to_spare);
    add(given.counted.messages_out, 1);
    add(given.counted.bytes_out, bytes);
    heed_budget();
}

bool forwarder::send_frame(std::size_t index) {
    const auto more = index + 1 < used ? zmq::send_flags::sndmore : zmq::send_flags::none;
    return given.to.send(frames[index], more | zmq::send_flags::dontwait).has_value();
}

// libzmq looks for room that was made about once a millisecond, unless it is asked for its events.
bool forwarder::send_first_frame() {
    return send_frame(0) || (given.to.get(zmq::sockopt::events) >= 0 && send_frame(0));
}

// Without the option the message goes to all that have room. The full ones count as absent until they have
// taken half of what waits for them: a jam is met once.
void forwarder::drop_for_the_full() {
    count_jam();
    now = steady::now();
    given.subscribers.report_jam(now);
    given.to.set(zmq::sockopt::xpub_nodrop, false);
    send_frame(0);
    given.to.set(zmq::sockopt::xpub_nodrop, true);
}

void forwarder::count_jam() {
    add(given.counted.jams, 1);
    memory_to_give_back = true;
    calm_since = now;
}

// The last frame stands for all: queues let go of it last.
void forwarder::track_large() {
    std::size_t cost = 0;
    for (std::size_t i = 0; i < used; ++i) cost += cost_of(frames[i]);
    if (cost > counted_cost) given.kept.track(frames[used - 1], cost);
}

// Whoever has stopped reading holds what the hub keeps, and is cut off at once. Otherwise those who read get
// some time, and at twice the budget the slowest of them goes.
void forwarder::heed_budget() {
    if (!over_budget() || wait_for_budget()) return;
    if (!ending && given.subscribers.cut_the_slowest(now, given.kept.now() > 2 * given.queue_bytes))
        count_jam();
}

// Whether messages went out in time; not waited for when somebody holds them who does not read.
bool forwarder::wait_for_budget() {
    now = steady::now();
    const auto until = now + left.left(now);
    while (over_budget() && !ending && now < until && !given.subscribers.any_to_cut(now)) attend(1ms);
    left.spend(steady::now());
    return !over_budget();
}

// All but messages.
void forwarder::attend(std::chrono::milliseconds wait) {
    zmq::poll(watched.data(), watched.size() - 1, wait);
    follow_connections();
}

void forwarder::follow_connections() {
    now = steady::now();
    ending = watched[told_to_end].revents != 0;
    if (watched[subscriptions].revents != 0) discard_subscriptions();
    if (watched[publisher_events].revents != 0) given.publishers.follow(now);
    if (watched[subscriber_events].revents != 0) given.subscribers.follow(now);
    given.publishers.look(now);
    given.subscribers.look(now);
    given.counted.publishers.store(given.publishers.count(), std::memory_order_relaxed);
    given.counted.subscribers.store(given.subscribers.count(), std::memory_order_relaxed);
}

// Publishers were told at the beginning that everything is wanted.
void forwarder::discard_subscriptions() {
    zmq::message_t subscription;
    while (given.to.recv(subscription, zmq::recv_flags::dontwait)) continue;
}

// Once all have caught up; until then it would be asked for again.
void forwarder::give_memory_back() {
    if (!memory_to_give_back) return;
    if (!given.subscribers.all_keep_up(now)) calm_since = now;
    if (now - calm_since < calm) return;
    malloc_trim(0);
    memory_to_give_back = false;
}

}  // namespace tolvan::relay

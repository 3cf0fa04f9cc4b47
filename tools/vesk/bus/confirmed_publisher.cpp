// A message is confirmed by being seen: a tap at the hub's other side brings back what was published, and
// each message is known again by its topic, data and stamp. Nothing that is known of a connection takes part
// in that, for one that breaks is replaced behind the publisher's back, and what was in it is gone.
//
// A lost message says nothing. So when the oldest one has not come back for a while, a probe goes the same
// way. It carries the number of the last publication before it, and when it is back, nothing older comes any
// more. Probes confirm nothing; they only end the wait.
#include "bus/confirmed_publisher.hpp"

#include <algorithm>
#include <utility>

#include <tolvan/relay/hub.hpp>

namespace tolvan::vesk::tool {

namespace {

constexpr std::size_t window = 400;  // few enough for all queues on the way
constexpr std::size_t most_bytes_under_way = relay::hub::largest_message;
constexpr session::milliseconds loss_interval{20};

// ZeroMQ learns of free places half a queue at a time, and looks for them once in a millisecond or so. A
// short queue is full in its eyes when it has long been emptied: so it gets a fifth of its length in that
// time.
constexpr std::size_t short_queue = 10 * window;
constexpr session::milliseconds rest_in_short_queue{2};

bool is_short(std::size_t queue) {
    return queue > 0 && queue < short_queue;
}

std::size_t window_for(std::size_t queue) {
    return is_short(queue) ? std::clamp<std::size_t>(queue / 5, 1, window) : window;
}

}  // namespace

confirmed_publisher::confirmed_publisher(session& on, const common_options& common, options given,
                                         callbacks called)
    : process(on),
      chosen(std::move(given)),
      call(std::move(called)),
      patience(std::chrono::ceil<milliseconds>(chosen.patience)),
      most_under_way(window_for(queue)),
      tap(on.loop(), {common.sub_endpoint, speaks_ipv6()},
          {.message = [this](const auto& message) { see(message); }}),
      progress_at(now()) {
    for (const auto& topic : chosen.seen) tap.subscribe(topic);
    tap.subscribe(probe.name());
    look();
}

bool confirmed_publisher::has_room() const {
    return hub_is_there && again.empty() && may_send_more();
}

bool confirmed_publisher::may_send_more() const {
    return !resting && unconfirmed.size() < most_under_way && unconfirmed.bytes() < most_bytes_under_way;
}

void confirmed_publisher::publish(numbered_message message) {
    if (is_done()) progress_at = now();
    send(std::move(message));
}

number_ranges confirmed_publisher::under_way() const {
    std::vector<std::uint64_t> numbers = unconfirmed.numbers();
    for (const auto& each : again) numbers.push_back(each.number);
    return number_ranges(std::move(numbers));
}

void confirmed_publisher::see(const wire::hub_message& message) {
    if (message.topic.starts_with(probe.name()))
        see_probe(probe.number_in(std::string(message.topic)).value_or(0));
    else if (message.stamp_ms)
        see_message(message);
}

void confirmed_publisher::see_message(const wire::hub_message& message) {
    if (!unconfirmed.confirm(message.topic, message.data, *message.stamp_ms)) return;
    progress_at = now();
    send_again();
    call.progress();
}

void confirmed_publisher::see_probe(unconfirmed_messages::publication last) {
    answered_at = now();
    hub_is_there = true;
    if (unconfirmed.oldest() <= last) lose(unconfirmed.take_until(last));
    send_again();
    call.progress();
}

// Sending again is no progress: it would go on for ever with a message that a hub does not carry.
void confirmed_publisher::lose(std::vector<numbered_message> lost) {
    if (lost.empty()) return;
    std::vector<std::uint64_t> numbers;
    for (auto& each : lost) {
        numbers.push_back(each.number);
        if (chosen.resend) again.push_back(std::move(each));
    }
    if (!chosen.resend) progress_at = now();
    call.lost(number_ranges(std::move(numbers)));
}

void confirmed_publisher::send(numbered_message message) {
    const milliseconds earliest = now();
    publisher.publish(message.topic, message.data);
    unconfirmed.add(std::move(message), earliest, now());
    if (!next_look) look_later();
    if (is_short(queue) && ++since_rest == most_under_way) rest();
}

void confirmed_publisher::rest() {
    resting = process.after(rest_in_short_queue, [this] {
        resting.reset();
        since_rest = 0;
        send_again();
        call.progress();
    });
}

void confirmed_publisher::send_again() {
    while (!again.empty() && may_send_more()) {
        send(std::move(again.front()));
        again.pop_front();
    }
}

// Asks the hub when the oldest message is still the one of the last look; also before there was any.
void confirmed_publisher::look() {
    next_look.reset();
    if (hub_is_there && is_done()) return;
    if (now() - progress_at >= patience) return call.gave_up(answered_at > progress_at);
    if (unconfirmed.oldest() == oldest_at_last_look) publisher.publish(probe.with(unconfirmed.last()), "");
    look_later();
}

void confirmed_publisher::look_later() {
    oldest_at_last_look = unconfirmed.oldest();
    next_look = process.after(std::min(look_interval(), progress_at + patience - now()), [this] { look(); });
}

confirmed_publisher::milliseconds confirmed_publisher::look_interval() {
    return hub_is_there ? loss_interval : pace.next();
}

}  // namespace tolvan::vesk::tool

#include "bus/hub_presence.hpp"

#include <utility>

namespace tolvan::vesk::tool {

namespace {

constexpr event_loop_v1::milliseconds watch_interval{2000};
constexpr event_loop_v1::milliseconds grace{500};

// A copy: the callback may destroy whose it is.
void tell(std::function<void()> told) {
    if (told) told();
}

}  // namespace

hub_presence::hub_presence(event_loop_v1& loop, callbacks called) : events(loop), call(std::move(called)) {
    subscriber.subscribe(
        topic.name(), [this](const std::string&) { see(); }, [](const auto&, const auto&) {});
    seek();
}

void hub_presence::seek() {
    send();
    then(pace.next(), &hub_presence::seek);
}

void hub_presence::see() {
    answered = true;
    if (std::exchange(there, true)) return;
    watch();
    tell(std::exchange(was_there, true) ? call.back : call.ready);
}

void hub_presence::watch() {
    answered = false;
    send();
    then(watch_interval, &hub_presence::look);
}

// It may be this process that has been busy: then the answer waits to be read, and a moment tells.
void hub_presence::look() {
    if (answered) return watch();
    send();
    then(grace, &hub_presence::lose);
}

void hub_presence::lose() {
    if (answered) return watch();
    there = false;
    pace = {};
    seek();
    tell(call.lost);
}

void hub_presence::send() {
    publisher.publish(topic.with(0), "");
}

void hub_presence::then(milliseconds delay, void (hub_presence::*step)()) {
    next = events.create_timer("hub presence", delay, milliseconds(0), [this, step] { (this->*step)(); });
}

}  // namespace tolvan::vesk::tool

// The hub becomes ready in two steps. While it is sought, a probe that comes back says only that it is there:
// a transport that has connected anew repeats its subscriptions in an order of its own, and the probe's may
// be ahead of the others. A subscription that is made after that follows all of them. So the first answer is
// followed by probes on a new topic, and one of those says that the hub knows everything.
//
// A probe that does not come back says little while the process itself is busy, for then the answer waits to
// be read. Patience is therefore counted in turns of the loop as well as in time.
#include <stdexcept>
#include <utility>

#include <tolvan/vesk/toolkit/hub_presence.hpp>

namespace tolvan::vesk::toolkit {

namespace {

constexpr event_loop_v1::milliseconds patience{2000};
constexpr int most_unanswered = 8;
constexpr event_loop_v1::milliseconds at_ease{10'000};  // as after so long: a probe every 0.2 s

void tell(const std::function<void()>& told) {
    if (told) told();
}

}  // namespace

hub_presence::hub_presence(std::shared_ptr<event_loop_v1> loop, callbacks called)
    : hub_presence(std::move(loop), std::move(called), options{}) {}

hub_presence::hub_presence(std::shared_ptr<event_loop_v1> loop, callbacks called, options chosen)
    : events(std::move(loop)),
      call(std::make_shared<callbacks>(std::move(called))),
      interval(chosen.probe_interval) {
    if (!events) throw std::invalid_argument("hub_presence: there is no event loop");
    if (interval < milliseconds(0))
        throw std::invalid_argument("hub_presence: a probe interval of " + std::to_string(interval.count()) +
                                    " ms");
    then(milliseconds(0), &hub_presence::seek);
}

void hub_presence::wait_until_ready(milliseconds limit, std::function<void()> ready,
                                    std::function<void()> timed_out) {
    if (!ready || !timed_out) throw std::invalid_argument("wait_until_ready: a callback is empty");
    auto expire = [this, timed_out = std::move(timed_out)] {
        waiting.reset();
        timed_out();
    };
    auto timer = events->create_timer("hub presence limit", limit, milliseconds(0), std::move(expire));
    waiting = std::make_unique<wait>(wait{std::move(ready), std::move(timer)});
    if (current != phase::seeking) then(milliseconds(0), &hub_presence::settle);
}

void hub_presence::seek() {
    ask_anew(phase::seeking);
}

void hub_presence::settle() {
    ask_anew(phase::settling);
}

void hub_presence::ask_anew(phase entered) {
    current = entered;
    topic = probe_topic();
    subscriber.revoke_subscriptions();
    subscriber.subscribe(
        topic.name(), [this](const std::string&) { see(); }, [](const auto&, const auto&) {});
    begin_to_ask(probe_pace());
}

void hub_presence::begin_to_ask(probe_pace chosen) {
    pace = chosen;
    unanswered = 0;
    asked_at = events->now();
    ask();
}

void hub_presence::ask() {
    if (is_out_of_patience()) return lose();
    publisher.publish(topic.name(), "");
    then(pace.next(), &hub_presence::ask);
}

bool hub_presence::is_out_of_patience() {
    return current != phase::seeking && unanswered++ >= most_unanswered &&
           events->now() - asked_at >= patience;
}

void hub_presence::see() {
    switch (current) {
        case phase::seeking:
            return settle();
        case phase::settling:
            return arrive();
        case phase::idle:
            return rest();
    }
}

// The callbacks may destroy this object, and make others wait.
void hub_presence::arrive() {
    rest();
    const std::weak_ptr<const void> self = alive;
    const auto kept = call;
    const auto waited = std::move(waiting);
    if (!std::exchange(known, true)) tell(std::exchange(was_known, true) ? kept->back : kept->ready);
    if (waited && !self.expired()) waited->ready();
}

void hub_presence::rest() {
    current = phase::idle;
    next.reset();
    if (interval > milliseconds(0)) then(interval, &hub_presence::ask_again);
}

void hub_presence::ask_again() {
    begin_to_ask(probe_pace(at_ease));
}

void hub_presence::lose() {
    const auto kept = call;
    const bool was_there = std::exchange(known, false);
    seek();
    if (was_there) tell(kept->lost);
}

void hub_presence::then(milliseconds delay, void (hub_presence::*step)()) {
    next = events->create_timer("hub presence", delay, milliseconds(0), [this, step] { (this->*step)(); });
}

}  // namespace tolvan::vesk::toolkit

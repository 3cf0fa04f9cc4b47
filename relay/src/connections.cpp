#include "connections.hpp"

#include <algorithm>
#include <tuple>

#include "limits.hpp"

namespace tolvan::relay {
namespace {

using namespace std::chrono_literals;

// Looks that are too close to each other would find a stall in any two packets.
constexpr auto between_looks = 50ms;
constexpr auto between_looks_at_jams = 5ms;

// A process that reads is not kept from it for so long, unless the machine is overloaded.
constexpr auto stall = 100ms;

// Somebody who reads, but who was not seen to catch up for so long, is too slow for what comes.
constexpr auto far_behind = 1s;

// Until libzmq has let go of what waited for the one before.
constexpr auto between_cuts = 100ms;

// libzmq ends a silent connection without saying why. Its clock and the looks differ a little.
constexpr auto silence = heartbeat_timeout - 1s;

using event = hub::report::event;

}  // namespace

connections::connections(zmq::context_t& context, zmq::socket_t& watched, bool of_publishers,
                         report_queue& to)
    : publishers(of_publishers),
      reports(to),
      events(context, watched, of_publishers ? "publishers" : "subscribers") {}

void connections::follow(steady::time_point now) {
    while (const auto event = events.next()) apply(*event, now);
}

void connections::apply(const wire::connection_event& event, steady::time_point now) {
    using kind = wire::connection_event::kind;
    switch (event.what) {
        case kind::accepted:
            return add(event.descriptor, now);
        case kind::greeted:
            return note_greeting();
        case kind::gone:
            return remove(event.descriptor, now);
    }
}

void connections::add(int descriptor, steady::time_point now) {
    const auto [added, is_new] = present.insert_or_assign(descriptor, connection(descriptor, now));
    ++handshakes;
    report(event::connected, added->second.peer());
}

// Whose it was is known for certain once none is under way any more.
void connections::note_greeting() {
    if (handshakes == 0 || --handshakes > 0) return;
    for (auto& [descriptor, each] : present) each.greet();
}

std::size_t connections::not_surely_greeted() const {
    return static_cast<std::size_t>(std::count_if(
        present.begin(), present.end(), [](const auto& each) { return !each.second.is_greeted(); }));
}

void connections::remove(int descriptor, steady::time_point now) {
    const auto found = present.find(descriptor);
    if (found == present.end()) return;
    report(reason_of_end(found->second, now), found->second.peer());
    present.erase(found);
    handshakes = std::min(handshakes, not_surely_greeted());
}

hub::report::event connections::reason_of_end(const connection& gone, steady::time_point now) const {
    if (!gone.is_greeted() && handshakes == not_surely_greeted()) return event::refused;
    return gone.silent(now) > silence ? event::fell_silent : event::disconnected;
}

void connections::look(steady::time_point now, steady::duration least_age) {
    if (now - looked < least_age) return;
    looked = now;
    for (auto& [descriptor, each] : present) each.look(now);
}

void connections::look(steady::time_point now) {
    look(now, between_looks);
}

bool connections::any_to_cut(steady::time_point now) const {
    return std::any_of(present.begin(), present.end(), [now](const auto& each) {
        return each.second.stalled(now) >= stall && !each.second.is_cut();
    });
}

bool connections::all_keep_up(steady::time_point now) const {
    return std::all_of(present.begin(), present.end(),
                       [now](const auto& each) { return each.second.behind(now) < stall; });
}

// The jam may have come in less time than passes from one look to the next.
void connections::report_jam(steady::time_point now) {
    look(now, between_looks_at_jams);
    bool told = false;
    for (auto& [descriptor, each] : present) {
        if (each.stalled(now) < stall || each.is_given_up()) continue;
        report_jam_of(each);
        told = true;
    }
    if (told) return;
    connection* const slow = longest(
        [now](const auto& each) {
            const bool may_be_new = each.behind(now) > 0ns && !each.is_given_up();
            return std::tuple(may_be_new, each.stalled(now), each.behind(now));
        },
        std::tuple(false, steady::duration(0), steady::duration(1)));
    if (slow != nullptr) return report_jam_of(*slow);
    report(event::jammed, "");
}

void connections::report_jam_of(connection& slow) {
    slow.give_up();
    report(event::jammed, slow.peer());
}

bool connections::cut_the_slowest(steady::time_point now, bool any_will_do) {
    if (now - last_cut < between_cuts) return false;
    connection* slowest = longest([now](const auto& each) { return each.stalled(now); }, stall);
    if (slowest == nullptr)
        slowest =
            longest([now](const auto& each) { return each.behind(now); }, any_will_do ? 1ns : far_behind);
    if (slowest == nullptr) return false;
    if (!slowest->cut()) return false;
    last_cut = now;
    report(event::cut, slowest->peer());
    return true;
}

template <typename Duration, typename Least>
connection* connections::longest(Duration duration, Least least) {
    connection* found = nullptr;
    for (auto& [descriptor, each] : present) {
        if (each.is_cut() || duration(each) < least) continue;
        if (found == nullptr || duration(each) > duration(*found)) found = &each;
    }
    return found;
}

void connections::report(hub::report::event what, const std::string& peer) {
    reports.add({what, publishers, peer});
}

}  // namespace tolvan::relay

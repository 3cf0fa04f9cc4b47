// A filter says nothing when the hub has it. So each connection gets a probe topic of its own, added after
// all filters, and when a message to that topic is back, the hub knows all of them. The socket makes a lost
// connection anew by itself, with the same filters in another order: hence another topic for each.
//
// A hub that stands still, or is cut off, ends no connection. When nothing has come for a while, probes ask
// whether it is there.
#include "observing/observer.hpp"

#include <utility>

#include "bus/bus_environment.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr observer::milliseconds silence_look_interval{1000};
constexpr int silence_to_ask = 2;   // looks at which nothing had come
constexpr int silence_of_loss = 5;  // of the same

// By an application, which gets what is meant by it.
std::string_view as_read(std::string_view topic) {
    return topic.substr(0, topic.find('\0'));
}

}  // namespace

wire::tap::options tap_options(const common_options& common) {
    prepare_environment(common);
    check_environment();
    return {common.sub_endpoint, speaks_ipv6()};
}

void tell_hints_about(const std::vector<std::string>& topics) {
    for (const auto& topic : topics)
        if (const auto hint = topic_set::hint_about(topic); !hint.empty()) tell(hint);
}

observer::observer(event_process& on, const common_options& given, const std::vector<std::string>& topics,
                   callbacks called)
    : process(on),
      common(given),
      wanted(topics),
      call(std::move(called)),
      notes(on, given, hub_notes::detail::all),
      tap(on.loop(), tap_options(given),
          {.message = [this](const auto& message) { see(message); },
           .idle = call.idle,
           .connected = [this] { see_connection(); },
           .lost = [this] { see_loss(); }}),
      sender(tap.shared_context(), given.pub_endpoint, speaks_ipv6()) {
    tell_hints_about(topics);
    for (const auto& topic : wanted.filters()) tap.subscribe(topic);
}

std::string observer::what_is_missing() const {
    if (probe.empty()) return "no hub at " + common.sub_endpoint;
    return "what goes to " + common.pub_endpoint + " does not come back at " + common.sub_endpoint;
}

observer::milliseconds observer::time_away() const {
    return was_away + (away_since ? now() - *away_since : milliseconds(0));
}

void observer::see(const wire::hub_message& message) {
    heard = true;
    if (message.topic.starts_with(toolkit::probe_prefix)) {
        if (message.topic.starts_with(probes.name())) return see_probe(message.topic);
        if (wanted.is_everything()) return;
    }
    if (wanted.contains(as_read(message.topic))) call.message(message);
}

void observer::see_probe(std::string_view topic) {
    if (topic != probe || knows_filters) return;
    knows_filters = true;
    next_probe.reset();
    silent_looks = 0;
    was_away = time_away();
    away_since.reset();
    notes.ready();
    next_look = process.after(silence_look_interval, [this] { look(); });
    if (call.ready) call.ready();
}

void observer::see_connection() {
    if (!probe.empty()) see_loss();
    probe = probes.with(++connections);
    tap.subscribe(probe);
    pace = toolkit::probe_pace();
    probe_again();
}

void observer::see_loss() {
    if (probe.empty()) return;
    tap.unsubscribe(std::exchange(probe, {}));
    next_probe.reset();
    next_look.reset();
    if (std::exchange(knows_filters, false)) note_loss(now());
}

void observer::probe_again() {
    sender.send(probe, "");
    next_probe = process.after(pace.next(), [this] { probe_again(); });
}

void observer::look() {
    next_look = process.after(silence_look_interval, [this] { look(); });
    silent_looks = std::exchange(heard, false) ? 0 : silent_looks + 1;
    if (silent_looks == 0) note_life();
    if (silent_looks >= silence_to_ask) sender.send(probe, "");
    if (silent_looks == silence_of_loss) note_loss(now() - silence_of_loss * silence_look_interval);
}

// Over the same connection nothing is lost.
void observer::note_life() {
    away_since.reset();
    notes.ready();
}

void observer::note_loss(milliseconds since) {
    if (!away_since) away_since = since;
    notes.lost();
}

}  // namespace tolvan::vesk::tool

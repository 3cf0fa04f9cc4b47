#include "hub/hub_reports.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "hub/process_usage.hpp"
#include "terminal/tell.hpp"

namespace tolvan::vesk::tool {

namespace {

using event = relay::hub::report::event;

constexpr std::chrono::seconds between_jam_lines{1};

std::string line_of(const relay::hub::report& report) {
    const char* const who = report.publisher ? "publisher" : "subscriber";
    switch (report.what) {
        case event::connected:
            return fmt::format("{} connected: {}", who, report.peer);
        case event::refused:
            return fmt::format("refused the handshake of a {}: {}", who, report.peer);
        case event::fell_silent:
            return fmt::format(
                "dropped a {}, and what waited for it, after a minute without a sign of life: {}", who,
                report.peer);
        default:
            return fmt::format("{} disconnected: {}", who, report.peer);
    }
}

std::string traffic(std::uint64_t messages, std::uint64_t bytes, double spent) {
    return fmt::format("{} messages ({} bytes), {:.0f} ({:.0f} bytes) a second", messages, bytes,
                       static_cast<double>(messages) / spent, static_cast<double>(bytes) / spent);
}

}  // namespace

void hub_reports::take(const std::vector<relay::hub::report>& reports, clock::time_point now) {
    for (const auto& each : reports) take(each);
    tell_due(now);
}

void hub_reports::take(const relay::hub::report& report) {
    const bool is_jam = report.what == event::jammed || report.what == event::cut;
    if (is_jam) {
        jammed = true;
        cut = cut || report.what == event::cut;
        if (!report.peer.empty()) slow.insert(report.peer);
    } else if (talkative || report.what == event::fell_silent) {
        tell(line_of(report));
    }
}

hub_reports::clock::time_point hub_reports::due() const {
    return jammed ? earliest : clock::time_point::max();
}

void hub_reports::tell_due(clock::time_point now) {
    if (now < due()) return;
    tell(fmt::format("a subscriber does not keep up: messages for it are dropped{}{}{}",
                     cut ? ", and its connection is cut" : "", slow.empty() ? "" : ": ",
                     fmt::join(slow, ", ")));
    slow.clear();
    jammed = cut = false;
    earliest = now + between_jam_lines;
}

std::string hub_statistics::line(const relay::hub::counters& now) {
    const auto moment = clock::now();
    const double spent = std::chrono::duration<double>(moment - since).count();
    const std::string in =
        traffic(now.messages_in - before.messages_in, now.bytes_in - before.bytes_in, spent);
    const std::string out =
        traffic(now.messages_out - before.messages_out, now.bytes_out - before.bytes_out, spent);
    const auto jams = now.jams - before.jams;
    const process_usage used = usage_of_this_process();
    since = moment;
    before = now;
    return fmt::format(
        "relayed {} in; {} out; {} publishers, {} subscribers; {} jams; {} KiB of memory; {} of {} "
        "descriptors",
        in, out, now.publishers, now.subscribers, jams, used.resident_bytes / 1024, used.open_descriptors,
        used.allowed_descriptors);
}

}  // namespace tolvan::vesk::tool

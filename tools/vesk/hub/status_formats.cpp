#include "hub/status_formats.hpp"

#include <cmath>

#include <fmt/format.h>

#include <tolvan/Variant.hpp>

namespace tolvan::vesk::tool {

namespace {

// More digits would be noise, and twice the text.
Variant tenths(double value) {
    if (value == std::floor(value)) return Variant::integer(static_cast<std::int64_t>(value));
    return Variant::number(std::round(value * 10) / 10);
}

Variant whole(std::uint64_t value) {
    return Variant::unsigned_integer(value);
}

Variant array(const std::vector<double>& numbers) {
    Variant::array_t elements;
    for (const double each : numbers) elements.push_back(tenths(each));
    return Variant::array(std::move(elements));
}

double unix_time(const hub_facts& facts) {
    return std::chrono::duration<double>(facts.started.time_since_epoch()).count();
}

Variant totals(const hub_sample& now) {
    return Variant::object({{"messages_in", whole(now.counted.messages_in)},
                            {"bytes_in", whole(now.counted.bytes_in)},
                            {"messages_out", whole(now.counted.messages_out)},
                            {"bytes_out", whole(now.counted.bytes_out)},
                            {"jams", whole(now.counted.jams)},
                            {"refused_connections", whole(now.refused)}});
}

Variant present(const hub_sample& now) {
    return Variant::object({{"publishers", whole(now.counted.publishers)},
                            {"subscribers", whole(now.counted.subscribers)},
                            {"resident_bytes", whole(now.used.resident_bytes)},
                            {"open_descriptors", whole(now.used.open_descriptors)}});
}

Variant limits(const hub_status& status) {
    return Variant::object({{"queue_bytes", Variant::integer(status.facts.queue_bytes)},
                            {"message_bytes", Variant::integer(relay::hub::largest_message)},
                            {"descriptors", whole(status.now().used.allowed_descriptors)}});
}

Variant history(const std::vector<hub_sample>& samples) {
    const auto rate = [&](auto counter) {
        return array(rates(samples, [&](const hub_sample& each) { return each.counted.*counter; }));
    };
    const auto value = [&](auto of) { return array(values(samples, of)); };
    using counters = relay::hub::counters;
    return Variant::object(
        {{"uptime_seconds", value([](auto& each) { return each.uptime; })},
         {"messages_in_per_second", rate(&counters::messages_in)},
         {"bytes_in_per_second", rate(&counters::bytes_in)},
         {"messages_out_per_second", rate(&counters::messages_out)},
         {"bytes_out_per_second", rate(&counters::bytes_out)},
         {"publishers", value([](auto& each) { return each.counted.publishers; })},
         {"subscribers", value([](auto& each) { return each.counted.subscribers; })},
         {"jams_per_second", rate(&counters::jams)},
         {"resident_bytes", value([](auto& each) { return each.used.resident_bytes; })},
         {"open_descriptors", value([](auto& each) { return each.used.open_descriptors; })}});
}

struct metric {
    const char* name;
    const char* type;
    const char* help;
    double value;
    const char* labels = "";
};

std::string sample_line(const metric& shown) {
    return fmt::format("{}{} {}\n", shown.name, shown.labels, shown.value);
}

std::string heading(const metric& shown) {
    return fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", shown.name, shown.help, shown.type);
}

std::vector<metric> metrics_of(const hub_status& status) {
    const auto& [uptime, counted, refused, used] = status.now();
    const auto number = [](auto value) { return static_cast<double>(value); };
    return {
        {"vesk_hub_received_messages_total", "counter", "Messages received from publishers.",
         number(counted.messages_in)},
        {"vesk_hub_received_bytes_total", "counter", "Bytes received from publishers.",
         number(counted.bytes_in)},
        {"vesk_hub_relayed_messages_total", "counter",
         "Messages passed on to the subscription side, each once, whoever takes it.",
         number(counted.messages_out)},
        {"vesk_hub_relayed_bytes_total", "counter", "Bytes passed on to the subscription side.",
         number(counted.bytes_out)},
        {"vesk_hub_jams_total", "counter", "Times that the hub began to drop messages for a subscriber.",
         number(counted.jams)},
        {"vesk_hub_refused_connections_total", "counter", "Connections refused for want of descriptors.",
         number(refused)},
        {"vesk_hub_connections", "gauge", "Connections at each endpoint.", number(counted.publishers),
         "{endpoint=\"publishing\"}"},
        {"vesk_hub_connections", "gauge", "", number(counted.subscribers), "{endpoint=\"subscription\"}"},
        {"vesk_hub_queue_limit_bytes", "gauge",
         "Memory that messages for a subscriber that does not keep up may take.",
         number(status.facts.queue_bytes)},
        {"vesk_hub_message_limit_bytes", "gauge", "Largest frame that a peer may send.",
         number(relay::hub::largest_message)},
        {"vesk_hub_info", "gauge", "The hub's version.", 1, "{version=\"" VESK_VERSION "\"}"},
        {"process_resident_memory_bytes", "gauge", "Resident memory of the hub's process.",
         number(used.resident_bytes)},
        {"process_open_fds", "gauge", "Open file descriptors.", number(used.open_descriptors)},
        {"process_max_fds", "gauge", "File descriptors allowed.", number(used.allowed_descriptors)},
        {"process_start_time_seconds", "gauge", "Start of the hub, in Unix time.", unix_time(status.facts)},
    };
}

}  // namespace

std::string as_json(const hub_status& status) {
    return Variant::object({{"version", Variant::string(VESK_VERSION)},
                            {"started", tenths(unix_time(status.facts))},
                            {"uptime_seconds", tenths(status.now().uptime)},
                            {"endpoints",
                             Variant::object({{"publishing", Variant::string(status.facts.pub_endpoint)},
                                              {"subscription", Variant::string(status.facts.sub_endpoint)}})},
                            {"limits", limits(status)},
                            {"totals", totals(status.now())},
                            {"now", present(status.now())},
                            {"history", history(status.samples)}})
               .toJson() +
           "\n";
}

std::string as_metrics(const hub_status& status) {
    std::string text;
    std::string_view before;
    for (const metric& each : metrics_of(status)) {
        if (each.name != before) text += heading(each);
        text += sample_line(each);
        before = each.name;
    }
    return text;
}

}  // namespace tolvan::vesk::tool

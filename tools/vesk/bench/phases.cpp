#include "bench/phases.hpp"

#include <algorithm>
#include <utility>

#include <tolvan/sedes/v1/opaque_json_block.hpp>
#include <tolvan/uuid_v1.hpp>

namespace tolvan::vesk::tool {

namespace {

using sedes::v1::opaque_json_block;

constexpr std::uint64_t most_messages_outstanding = 400;
constexpr std::uint64_t most_bytes_outstanding = 64 * 1024 * 1024;

std::string random_id() {
    uuid_v1 uuid;
    uuid.randomize();
    return "vesk-bench-" + std::to_string(uuid);
}

}  // namespace

std::uint64_t bench_load::most_outstanding() const {
    const std::uint64_t fitting = most_bytes_outstanding / std::max<std::uint64_t>(data.size(), 1);
    return std::clamp<std::uint64_t>(fitting, 1, most_messages_outstanding);
}

phase_result bench_phase::result() const {
    phase_result result = measured;
    const std::chrono::duration<double> taken = last_return - first_sending;
    result.lost = measured.sent - returned;
    if (returned > 0) result.per_second = static_cast<double>(returned) / taken.count();
    return result;
}

bool bench_phase::may_send() const {
    return measured.sent < load.count && measured.sent - settled() < load.most_outstanding();
}

bench_phase::clock::time_point bench_phase::note_sending() {
    const auto now = clock::now();
    if (measured.sent++ == 0) first_sending = now;
    return now;
}

void bench_phase::note_return() {
    ++returned;
    last_return = clock::now();
}

double bench_phase::ms_since(clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(clock::now() - begin).count();
}

void publishing_phase::publish_next() {
    const toolkit::probe_topic::number number = measured.sent;
    sent_at.push_back(note_sending());
    publisher.publish(topic.with(number), load.data);
}

bool publishing_phase::in_order(toolkit::probe_topic::number received) {
    if (received < awaited || received >= measured.sent) return false;
    measured.lost += received - awaited;
    awaited = received + 1;
    return true;
}

throughput_phase::throughput_phase(session& on, const bench_load& given)
    : publishing_phase("throughput", "throughput", given), process(on) {
    subscribe();
}

// The bus keeps a copy of every message for the handle callback, which comes far behind. It drops them with
// their subscriber; the topic stays subscribed by the new one.
void throughput_phase::subscribe() {
    auto fresh = std::make_unique<v1::subscriber>();
    fresh->subscribe(
        topic.name(), [this](const auto& received) { take(received); }, [](const auto&, const auto&) {});
    receiver = std::move(fresh);
    undelivered = 0;
}

void throughput_phase::start() {
    while (may_send()) publish_next();
}

// Sends on from the loop: the bus reads as long as messages come, and lets nobody else in between.
void throughput_phase::take(const std::string& received) {
    const auto number = topic.number_in(received);
    if (!number || !in_order(*number)) return;
    note_return();
    if (++undelivered >= load.most_outstanding()) subscribe();
    if (!next_sending || !next_sending->pending)
        next_sending = process.after(session::milliseconds(0), [this] { start(); });
}

latency_phase::latency_phase(session& on, const bench_load& given)
    : publishing_phase("latency", "latency", given), process(on) {
    measured.times = {{"notify_ms", "latency to the notify callback", {}},
                      {"handle_ms", "latency to the handle callback", {}}};
    receiver.subscribe(
        topic.name(), [this](const auto& received) { notified(received); },
        [this](const auto& received, const auto&) { handled(received); });
}

void latency_phase::start() {
    pace = std::make_unique<pacer>(process.loop(), load.rate, [this] {
        if (may_send()) publish_next();
    });
}

void latency_phase::notified(const std::string& received) {
    const auto number = topic.number_in(received);
    if (!number || !in_order(*number)) return;
    measured.times[0].ms.push_back(ms_since(sent_at[static_cast<std::size_t>(*number)]));
}

void latency_phase::handled(const std::string& received) {
    const auto number = topic.number_in(received);
    if (!number || *number >= sent_at.size()) return;
    measured.times[1].ms.push_back(ms_since(sent_at[static_cast<std::size_t>(*number)]));
    note_return();
}

round_trip_phase::round_trip_phase(session& on, const bench_load& given)
    : bench_phase("round_trip", "round trip", given),
      process(on),
      payload('"' + given.data + '"'),
      server_id(random_id()) {
    measured.times = {{"reply_ms", "request round trip", {}}};
    server.set_uuid(server_id);
    server.set_command_handler<opaque_json_block>(
        "echo", true, [](auto&& request, auto&& received) { request.reply(received.to_string()); });
}

void round_trip_phase::start() {
    pace = std::make_unique<pacer>(process.loop(), load.rate, [this] {
        if (may_send()) request();
    });
}

void round_trip_phase::request() {
    const auto sent = note_sending();
    client.request(server_id, "echo", payload, true, [this, sent](const std::string*, const auto& failure) {
        if (failure) {
            ++measured.lost;
            return;
        }
        measured.times[0].ms.push_back(ms_since(sent));
        note_return();
    });
}

}  // namespace tolvan::vesk::tool

#include "observing/topic_rates.hpp"

#include <algorithm>

namespace tolvan::vesk::tool {

namespace {

std::string_view first_segments(std::string_view topic, std::size_t count) {
    std::size_t end = std::string_view::npos;
    for (std::size_t taken = 0; taken < count; ++taken) {
        end = topic.find('.', end + 1);
        if (end == std::string_view::npos) break;
    }
    return topic.substr(0, end);
}

}  // namespace

double topic_rates::row::mean_size() const {
    return messages == 0 ? 0 : static_cast<double>(bytes) / static_cast<double>(messages);
}

void topic_rates::traffic::add(std::size_t size) {
    ++messages;
    bytes += size;
}

void topic_rates::topic_record::begin_interval(std::uint64_t number) {
    interval_number = number;
    latest = {};
    ages.clear();
}

void topic_rates::feed(const wire::hub_message& message, clock::time_point now) {
    const auto age = wire::age_of(message, now);
    for (topic_record* const record : {&record_of(message.topic), &total}) {
        if (record->interval_number != current_interval) record->begin_interval(current_interval);
        record->all.add(message.data.size());
        record->latest.add(message.data.size());
        record->last_seen = now;
        if (age && *age >= 0) record->ages.add(*age);
    }
}

topic_rates::topic_record& topic_rates::record_of(std::string_view topic) {
    const std::string_view name = first_segments(topic, segments);
    if (const auto found = topics.find(name); found != topics.end()) return found->second;
    if (topics.size() >= most_topics || topic_bytes + name.size() > most_topic_bytes)
        return topics[std::string(others)];
    topic_bytes += name.size();
    return topics[std::string(name)];
}

topic_rates::interval topic_rates::take_interval(clock::time_point now) {
    interval ended{.length = now - begin};
    ended.total = row_of({}, total, now, ended.length);
    ended.rows.reserve(topics.size());
    for (const auto& [topic, record] : topics) ended.rows.push_back(row_of(topic, record, now, ended.length));
    begin = now;
    ++current_interval;
    return ended;
}

topic_rates::row topic_rates::row_of(std::string_view topic, const topic_record& record,
                                     clock::time_point now, std::chrono::duration<double> length) const {
    const traffic latest = record.interval_number == current_interval ? record.latest : traffic{};
    const double seconds = std::max(length.count(), 1e-3);
    return {.topic = topic,
            .messages_per_second = static_cast<double>(latest.messages) / seconds,
            .bytes_per_second = static_cast<double>(latest.bytes) / seconds,
            .messages = record.all.messages,
            .bytes = record.all.bytes,
            .age_p50_ms = record.ages.percentile(50),
            .age_p99_ms = record.ages.percentile(99),
            .since_last = now - record.last_seen};
}

}  // namespace tolvan::vesk::tool

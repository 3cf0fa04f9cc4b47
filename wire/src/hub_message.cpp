#include <cstring>

#include <tolvan/vesk/hub/hub_message.hpp>
#include <tolvan/wire/hub_message.hpp>

namespace tolvan::wire {

std::optional<std::int64_t> stamp_of(std::string_view metadata) {
    vesk::hub::metadata_t record;
    if (metadata.size() < sizeof record) return std::nullopt;
    std::memcpy(&record, metadata.data(), sizeof record);
    if (record.version != vesk::hub::metadata_t::current_version) return std::nullopt;
    return record.timestamp_ms;
}

std::optional<std::int64_t> age_of(const hub_message& message, std::chrono::steady_clock::time_point now) {
    using std::chrono::milliseconds;
    const std::int64_t now_ms = std::chrono::duration_cast<milliseconds>(now.time_since_epoch()).count();
    std::int64_t age = 0;
    if (!message.stamp_ms || __builtin_sub_overflow(now_ms, *message.stamp_ms, &age)) return std::nullopt;
    return age;
}

}  // namespace tolvan::wire

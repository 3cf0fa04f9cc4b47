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

}  // namespace tolvan::wire

#include <algorithm>
#include <charconv>

#include <tolvan/uuid_v1.hpp>
#include <tolvan/vesk/toolkit/probe_topic.hpp>

namespace tolvan::vesk::toolkit {

probe_topic::probe_topic() {
    uuid_v1 uuid;
    uuid.randomize();
    text = probe_prefix + std::to_string(uuid);
}

std::optional<probe_topic::number> probe_topic::number_in(const std::string& topic) const {
    number found = 0;
    const char* const end = topic.data() + topic.size();
    const auto parsed = std::from_chars(topic.data() + std::min(text.size() + 1, topic.size()), end, found);
    if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
    return found;
}

}  // namespace tolvan::vesk::toolkit

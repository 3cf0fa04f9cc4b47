// In an order in which "." comes first, everything that a topic stands for follows directly on it. So of
// topics of which none stands for another, only the last one that is not behind a received topic can stand
// for that.
#include "observing/topic_set.hpp"

#include <algorithm>

namespace tolvan::vesk::tool {

namespace {

constexpr int rank(char character) {
    return character == '.' ? -1 : static_cast<unsigned char>(character);
}

bool is_before(std::string_view one, std::string_view other) {
    return std::lexicographical_compare(one.begin(), one.end(), other.begin(), other.end(),
                                        [](char a, char b) { return rank(a) < rank(b); });
}

bool stands_for(std::string_view topic, std::string_view received) {
    return topic.empty() || (received.starts_with(topic) &&
                             (received.size() == topic.size() || received[topic.size()] == '.'));
}

}  // namespace

topic_set::topic_set(const std::vector<std::string>& topics) : sorted(topics) {
    if (sorted.empty()) sorted.emplace_back();
    std::sort(sorted.begin(), sorted.end(), is_before);
    sorted.erase(std::unique(sorted.begin(), sorted.end(), stands_for), sorted.end());
}

std::string topic_set::hint_about(const std::string& topic) {
    if (topic.find(':') != std::string::npos)
        return "'" + topic +
               "' hardly matches anything: what stands before the first \":\" of a topic is not sent";
    if (topic.find_first_of("*#+") == std::string::npos && !topic.ends_with('.')) return {};
    return "'" + topic +
           "' matches only topics that are written so: there are no wildcards, and \"a.b\" stands for all "
           "that go on after it with a \".\"";
}

bool topic_set::contains(std::string_view topic) const {
    if (sorted.size() == 1) return stands_for(sorted.front(), topic);
    const auto behind = std::upper_bound(sorted.begin(), sorted.end(), topic, is_before);
    return behind != sorted.begin() && stands_for(*std::prev(behind), topic);
}

}  // namespace tolvan::vesk::tool

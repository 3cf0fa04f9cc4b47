#include "bus/unconfirmed_messages.hpp"

#include <utility>

namespace tolvan::vesk::tool {

std::string_view numbered_message::sent_topic() const {
    return std::string_view(topic).substr(topic.find(':') + 1);
}

void unconfirmed_messages::add(numbered_message message, milliseconds earliest, milliseconds latest) {
    data_size += message.data.size();
    waiting.push_back({std::move(message), ++published, earliest, latest});
}

bool unconfirmed_messages::confirm(std::string_view topic, std::string_view data, std::int64_t stamp_ms) {
    const milliseconds stamp(stamp_ms);
    for (auto each = waiting.begin(); each != waiting.end() && each->earliest <= stamp; ++each) {
        if (each->latest < stamp || each->message.data != data || each->message.sent_topic() != topic)
            continue;
        take(each);
        return true;
    }
    return false;
}

std::vector<numbered_message> unconfirmed_messages::take_until(publication last) {
    std::vector<numbered_message> taken;
    while (!waiting.empty() && waiting.front().serial <= last) taken.push_back(take(waiting.begin()));
    return taken;
}

std::vector<std::uint64_t> unconfirmed_messages::numbers() const {
    std::vector<std::uint64_t> found;
    for (const auto& each : waiting) found.push_back(each.message.number);
    return found;
}

numbered_message unconfirmed_messages::take(std::deque<entry>::iterator found) {
    numbered_message message = std::move(found->message);
    data_size -= message.data.size();
    waiting.erase(found);
    return message;
}

}  // namespace tolvan::vesk::tool

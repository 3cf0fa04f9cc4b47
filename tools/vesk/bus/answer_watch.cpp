#include "bus/answer_watch.hpp"

#include <cstdlib>
#include <utility>

#include <tolvan/Variant.hpp>

namespace tolvan::vesk::tool {

answer_watch::answer_watch(std::function<void(request_id)> answered) : when_answered(std::move(answered)) {
    asked.subscribe(topic.name(), nullptr,
                    [this](const std::string&, const std::string& envelope) { learn(envelope); });
}

void answer_watch::start(std::function<void()> ready) {
    when_ready = std::move(ready);
    asking.cancel_request(
        asking.request(topic.name(), "0", "", false, [](const std::string*, const std::exception_ptr&) {}));
}

// All reply topics of the process are those up to the number.
void answer_watch::learn(const std::string& envelope) {
    if (!when_ready) return;
    const std::string reply_topic = *Variant::fromJson(envelope).find("replyTopic")->as_string();
    answers.subscribe(
        reply_topic.substr(0, reply_topic.rfind('.')), [this](const std::string& received) { see(received); },
        [](const auto&, const auto&) {});
    std::exchange(when_ready, nullptr)();
}

void answer_watch::see(const std::string& reply_topic) const {
    const std::size_t number = reply_topic.rfind('.') + 1;
    when_answered(static_cast<request_id>(std::strtoul(reply_topic.c_str() + number, nullptr, 10)));
}

}  // namespace tolvan::vesk::tool

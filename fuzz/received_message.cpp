// A multipart message of any shape: each subscription gets exactly what a plain reading of it gives.
#include <map>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "process_on_the_bus.hpp"

namespace {

using namespace tolvan;
using delivery = std::pair<std::string, std::string>;

struct listening_process : fuzz::process_on_the_bus {
    listening_process() {
        for (const auto* const topic : {"", ".", "a", "a.", "a.b", "a.b.c", "ab"})
            subscriber.subscribe(
                topic,
                [this, topic](const auto& received) {
                    if (received != "witness") notified[topic].push_back(received);
                },
                [this, topic](const auto& received, const auto& data) {
                    if (received != "witness") handled[topic].emplace_back(received, data);
                });
    }

    vesk::v1::subscriber subscriber;
    std::map<std::string, std::vector<std::string>> notified;
    std::map<std::string, std::vector<delivery>> handled;
};

bool matches(const std::string& subscribed, const std::string& topic) {
    return subscribed.empty() || subscribed == topic || topic.starts_with(subscribed + ".");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static listening_process process;
    FuzzedDataProvider input(data, size);
    test::frames message;
    do message.push_back(input.ConsumeRandomLengthString());
    while (input.remaining_bytes() > 0 && message.size() < 8);

    process.notified.clear();
    process.handled.clear();
    process.hub.relay(message);
    process.settle();

    const std::string topic = message[0].c_str();
    const std::string text = message.size() < 2 ? "" : message[1].c_str();
    for (const char* const subscribed : {"", ".", "a", "a.", "a.b", "a.b.c", "ab"}) {
        const bool wanted = message.size() >= 2 && topic != "witness" && matches(subscribed, topic);
        const std::vector<std::string> topics(wanted ? 1 : 0, topic);
        fuzz::require(process.notified[subscribed] == topics, "notified once when it matches, else never");
        const std::vector<delivery> deliveries(wanted ? 1 : 0, {topic, text});
        fuzz::require(process.handled[subscribed] == deliveries, "handled once when it matches, else never");
    }
    return 0;
}

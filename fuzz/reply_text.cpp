// Answers of any text, to any reply topic, at any time: a request ends exactly once, with the first good
// reply at the latest.
#include <fuzzer/FuzzedDataProvider.h>

#include <tolvan/Variant.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>

#include "process_on_the_bus.hpp"

namespace {

using namespace tolvan;

std::string reply_topic_in(const std::string& envelope) {
    return *Variant::fromJson(envelope).find("replyTopic")->as_string();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::process_on_the_bus process;
    static vesk::v1::reqrep_client client;
    FuzzedDataProvider input(data, size);
    int ended = 0;
    client.request("svc", "get", "", input.ConsumeBool(),
                   [&](const std::string* reply, const std::exception_ptr& failure) {
                       ++ended;
                       fuzz::require(reply == nullptr || failure == nullptr, "a reply or a failure");
                       if (reply != nullptr) Variant::fromJson(*reply);
                   });
    const std::string reply_topic = reply_topic_in(process.hub.published().at(1));
    const std::string all_replies = reply_topic.substr(0, reply_topic.rfind('.') + 1);

    for (int answers = 0; answers < 4 && input.remaining_bytes() > 0; ++answers) {
        const bool to_the_request = input.ConsumeBool();
        process.loop->advance(input.ConsumeIntegralInRange(0, 5000));
        const std::string topic =
            to_the_request ? reply_topic : all_replies + input.ConsumeRandomLengthString(24);
        process.hub.relay(topic, input.ConsumeRandomLengthString());
        process.settle();
        fuzz::require(ended <= 1, "ended once at most");
    }
    process.hub.relay(reply_topic, R"({"payload":1})");
    process.settle();
    fuzz::require(ended == 1, "ended exactly once");
    return 0;
}

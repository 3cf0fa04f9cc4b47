// A request of any text: what is answered is an acknowledgement and the reply, or a single failure, or
// nothing; and the next good request is answered.
#include <fuzzer/FuzzedDataProvider.h>

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/opaque_json_block.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>

#include "process_on_the_bus.hpp"

namespace {

using namespace tolvan;

struct order_t {
    int count = 0;
    sedes::v1::optional<sedes::v1::opaque_json_block> detail;

    static constexpr auto description() {
        return sedes::v1::composite(sedes::v1::plain("count", &order_t::count),
                                    sedes::v1::optional_member("detail", &order_t::detail));
    }
};

struct serving_process : fuzz::process_on_the_bus {
    serving_process() {
        server.set_uuid("svc");
        server.set_command_handler<order_t>("get", true, [this](auto&& request, order_t&& order) {
            ++handled;
            if (order.count < 0) throw std::out_of_range("a negative count");
            request.reply(order);
        });
    }

    /// The answers to a request, as they are published.
    std::vector<Variant> answers(const std::string& topic, const std::string& envelope) {
        handled = 0;
        hub.relay(topic, envelope);
        settle();
        publisher.publish("last", "");
        std::vector<Variant> texts;
        for (auto message = hub.published(); message.at(0) != "last" || message.at(1) != "";
             message = hub.published())
            texts.push_back(Variant::fromJson(message.at(1)));
        return texts;
    }

    vesk::v1::reqrep_server server;
    int handled = 0;
};

bool is_ack(const Variant& answer) {
    return answer.as_object() != nullptr && answer.as_object()->empty();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static serving_process process;
    FuzzedDataProvider input(data, size);
    const std::string topic =
        input.ConsumeBool() ? "svc.get" : "svc.get." + input.ConsumeRandomLengthString(24);

    const auto answers = process.answers(topic, input.ConsumeRemainingBytesAsString());
    fuzz::require(process.handled <= 1, "handled once at most");
    fuzz::require(answers.size() <= (process.handled == 1 ? 2U : 1U), "no more answers than a request has");
    if (process.handled == 1) fuzz::require(is_ack(answers.at(0)), "acknowledged before it is handled");
    if (!answers.empty() && !is_ack(answers.back()))
        fuzz::require(answers.back().find("payload") != nullptr || answers.back().find("xWhat") != nullptr,
                      "the last answer is a reply or a failure");

    const auto good =
        process.answers("svc.get", R"({"replyTopic":"me","replyNeeded":true,"payload":{"count":1}})");
    fuzz::require(good.size() == 2 && good[1].toJson() == R"({"payload":{"count":1}})",
                  "the next one is answered");
    return 0;
}

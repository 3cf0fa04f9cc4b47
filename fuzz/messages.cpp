// Messages of any shape to one process that listens, asks and serves: each subscription gets exactly what a
// plain reading of them gives, a request ends exactly once, a server answers no more than it may.
//
// An input is up to four messages, FD between two of them and FE between their frames. A topic that begins
// with "@" goes to the reply topics of the process: "@" alone to the request that waits.
#include <sstream>
#include <utility>

#include <tolvan/Variant.hpp>

#include "require.hpp"
#include "support/whole_bus.hpp"

namespace {

using namespace tolvan;
using fuzz::require;

constexpr std::size_t most_messages = 4;

struct order_t {
    int count = 0;
    sedes::v1::optional<sedes::v1::opaque_json_block> detail;

    static constexpr auto description() {
        return sedes::v1::composite(sedes::v1::plain("count", &order_t::count),
                                    sedes::v1::optional_member("detail", &order_t::detail));
    }
};

bool matches(const std::string& subscribed, const std::string& topic) {
    return subscribed.empty() || subscribed == topic || topic.starts_with(subscribed + ".");
}

bool is_answer(const std::string& text) {
    const Variant answer = Variant::fromJson(text);
    return text == "{}" || answer.find("payload") != nullptr || answer.find("xWhat") != nullptr;
}

test::texts split(const std::string& text, char separator) {
    test::texts parts;
    std::istringstream rest(text + separator);
    for (std::string part; std::getline(rest, part, separator);) parts.push_back(part);
    return parts;
}

/// One for all inputs: what an input leaves behind, the next one meets.
class process : public test::whole_bus {
  public:
    process() {
        GTEST_FLAG_SET(break_on_failure, true);  // what the hub's sides expect of their sockets
        for (const auto& topic : listened)
            subscriber.subscribe(
                topic, [this, topic](const auto& received) { note("notify " + topic, received, ""); },
                [this, topic](const auto& received, const auto& data) {
                    note("handle " + topic, received, data);
                });
        server.set_uuid("svc");
        server.set_command_handler<order_t>("get", true, [this](auto&& request, order_t&& order) {
            ++served;
            if (order.count < 0) throw std::out_of_range("a negative count");
            request.reply(order);
        });
        witness.subscribe(
            "witness", [this](const auto&) { seen = true; }, nullptr);
    }

    /// Two requests wait, one of them without a reply; then the messages come, then what ends both.
    void meet(const std::string& input) {
        int ended = 0;
        const std::string replied = ask(true, ended);
        const std::string acknowledged = ask(false, ended);
        const auto messages = split(input, '\xfd');
        for (std::size_t i = 0; i < std::min(messages.size(), most_messages); ++i)
            meet_message(split(messages[i], '\xfe'), replied);
        require(ended <= 2, "ended once at most");
        answers({acknowledged, "{}", ""});
        answers({replied, R"({"payload":1})", ""});
        require(ended == 2, "ended exactly once");
        const auto good =
            answers({"svc.get", R"({"replyTopic":"me","replyNeeded":true,"payload":{"count":1}})", metadata});
        require(good == test::texts{"{}", R"({"payload":{"count":1}})"}, "the next request is answered");
    }

  private:
    void TestBody() override {}

    std::string ask(bool reply_needed, int& ended) {
        client.request("nobody", "get", "", reply_needed,
                       [&ended](const std::string* reply, const auto& failure) {
                           ++ended;
                           require(reply == nullptr || failure == nullptr, "a reply or a failure");
                           if (reply != nullptr) Variant::fromJson(*reply);
                       });
        return *Variant::fromJson(published().second).find("replyTopic")->as_string();
    }

    void meet_message(test::frames message, const std::string& waiting) {
        if (auto& topic = message[0]; topic.starts_with('@'))
            topic.replace(0, 1, topic == "@" ? waiting : waiting.substr(0, waiting.rfind('.')));
        calls.clear();
        served = 0;
        const auto given = answers(message);
        require(served <= 1, "served once at most");
        require(given.size() <= (served == 1 ? 2U : 1U), "no more answers than a request has");
        if (served == 1) require(given.at(0) == "{}", "acknowledged before it is served");
        for (const auto& answer : given)
            require(is_answer(answer), "an acknowledgement, a reply or a failure");
        check_deliveries(message);
    }

    void note(const std::string& call, const std::string& topic, const std::string& data) {
        if (topic != "witness") calls.push_back(call + ": " + topic + "=" + data);
    }

    void check_deliveries(const test::frames& message) {
        const std::string topic = message[0].c_str();
        const auto noted = std::exchange(calls, {});
        for (const char* const call : {"notify ", "handle "})
            for (const auto& subscribed : listened)
                if (message.size() >= 2 && matches(subscribed, topic))
                    note(call + subscribed, topic, *call == 'n' ? "" : message[1].c_str());
        require(noted == std::exchange(calls, {}), "notified, then handled, in ascending order");
    }

    /// What the process publishes because of that message.
    test::texts answers(const test::frames& message) {
        hub.relay(message);
        settle();
        client.publish("last", "nothing more");
        test::texts texts;
        for (auto [topic, data] = published(); data != "nothing more"; std::tie(topic, data) = published())
            texts.push_back(data);
        return texts;
    }

    /// Returns when everything that was relayed before has been received and handled.
    void settle() {
        seen = false;
        hub.relay("witness", "");
        while (!seen) loop->poll_once(0);
        loop->advance(1000);
        loop->made_timers.clear();  // which it only keeps for tests
        logged();
    }

    const std::string metadata = test::hub_sides::metadata(0);
    const test::texts listened = {"", ".", "a", "a.", "a.b", "a.b.c", "ab"};
    vesk::v1::subscriber subscriber, witness;
    vesk::v1::reqrep_client client;
    vesk::v1::reqrep_server server;
    test::texts calls;
    int served = 0;
    bool seen = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static process met;
    met.meet(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}

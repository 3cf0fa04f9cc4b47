#include <optional>
#include <tuple>

#include <gmock/gmock.h>

#include <tolvan/Variant.hpp>
#include <tolvan/vesk/hub/reqrep_client_impl.hpp>

#include "support/allocations.hpp"
#include "support/whole_bus.hpp"

namespace {

using namespace std::chrono_literals;
using namespace tolvan;
using test::described;
using test::texts;
using testing::ElementsAre;
using testing::HasSubstr;
using vesk::v1::reqrep_client;

const std::string log_of = " src/hub/reqrep_client_impl ";
const std::string deallocated = "3" + log_of + "discard_outstanding_request: deallocated request_id=";
const std::string timed_out = "N6tolvan4vesk2v113reqrep_client15request_timeoutE: request 1 timed out";

class request : public test::whole_bus {
  protected:
    // Issues a request; its outcome is noted in `outcomes`.
    unsigned short ask(bool reply_needed = true, const std::string& payload = "") {
        return ask_by(*client, reply_needed, payload);
    }
    unsigned short ask_by(reqrep_client& by, bool reply_needed = true, const std::string& payload = "") {
        return by.request(
            "svc", "get", payload, reply_needed, [this](const auto* reply, const auto& failure) {
                outcomes.push_back(failure ? described(failure) : reply ? *reply : "acknowledged");
            });
    }

    // The reply topic in the next request that the hub reads.
    std::string reply_topic() {
        return *Variant::fromJson(published().second).find("replyTopic")->as_string();
    }

    // Issues a request that can be answered, and gives its reply topic.
    std::string ask_hub(bool reply_needed = true) {
        ask(reply_needed);
        settle();
        return reply_topic();
    }

    void answer(const std::string& topic, const std::string& text) {
        const auto before = log.lines.size();
        hub.relay(topic, text);
        loop->run_until([&] { return log.lines.size() > before; });
        loop->advance(1);
    }

    void renew_backend() {
        reqrep_client::backend::instance = std::make_shared<vesk::hub::reqrep_client_impl>(loop);
    }

    std::optional<reqrep_client> client{std::in_place};
    texts outcomes;
};

TEST_F(request, travels_as_an_envelope_of_fixed_bytes_on_the_command_topic) {
    const std::string spaced = "{ \"b\":1,\n \"a\" : 2}";
    const std::tuple<bool, std::string, std::string> rows[] = {
        {true, "", "true}"},
        {false, "", "false}"},
        {true, "null", "true, \"payload\": null}"},
        {false, spaced, "false, \"payload\": " + spaced + "}"},
    };
    int id = 0;
    for (const auto& [reply_needed, payload, tail] : rows) {
        EXPECT_EQ(++id, ask(reply_needed, payload));
        const auto [topic, envelope] = published();
        EXPECT_EQ("svc.get", topic);
        const std::string start = "{\"replyTopic\": \"reqrep_client-",
                          uuid = envelope.substr(start.size(), 36);
        EXPECT_EQ(uuid.find_first_not_of("-0123456789abcdef"), std::string::npos) << uuid;
        EXPECT_EQ(start + uuid + ".reply." + std::to_string(id) + "\", \"replyNeeded\": " + tail, envelope);
    }
    EXPECT_EQ((std::pair<std::string, long long>("vesk::reqrep_client_impl[svc.get].timeout", 15000)),
              loop->made_timers.back());
    EXPECT_EQ(texts{}, logged('1')) << "one subscription is enough";
    for (int backend = 0; backend < 2; ++backend) renew_backend(), ask();
    EXPECT_NE(reply_topic(), reply_topic()) << "every backend has a name of its own";
}

// Steps: "+N" lets N ms pass, anything else is an answer. In what is logged, "#" stands for the reply topic.
struct conversation {
    bool reply_needed;
    texts steps, outcomes, logged = {};
};

TEST_F(request, ends_as_its_answers_and_the_time_say) {
    const auto received = [](const std::string& what) {
        return "3" + log_of + "reply_received: received " + what + " for reply topic=#";
    };
    const std::string notified = "3" + log_of + "reply_notification: received reply for reply topic=#";
    const std::string expired = "1" + log_of + "timeout_expired: timeout for request_id=1 pub_topic=svc.get";
    const std::string unknown = "0" + log_of + "request_itr_from_reply_topic: received reply for unknown " +
                                "request_id=1 with reply topic=#; cannot ";
    const std::string ack = received("ACK"), ended = deallocated + "1 pending=0";
    const texts replied{
        notified,          ack, notified, ack, notified, received("actual reply"), ended, unknown + "notify",
        unknown + "handle"};
    const auto nack = [](const std::string& what, const std::string& type) {
        return R"({"payload":null,"xWhat":")" + what + R"(","xTypeId":")" + type + "\"}";
    };
    const std::string runtime = "St13runtime_error", logic = "St11logic_error";
    const std::string bad_source = "N6tolvan5sedes2v126bad_deserialization_sourceE";
    const std::string plain = "N6tolvan4vesk3hub15plain_exceptionE: ";
    const std::string numbers = "[18446744073709551615,-9223372036854775808]";
    const conversation conversations[] = {
        {false, {"{}"}, {"acknowledged"}, {notified, received("final ACK"), ended}},
        {false, {R"({"payload":null,"xTypeId":"t"})"}, {"acknowledged"}},
        {false, {R"({"payload":1})"}, {"1"}},
        {true, {R"({"payload": {"b" : 1, "a":)" + numbers + "}}"}, {R"({"b":1,"a":)" + numbers + "}"}},
        {true, {R"({"payload":1,"xWhat":"both"})"}, {plain + "both"}},
        {false, {nack("", runtime)}, {runtime + ": "}, {notified, received("NACK"), ended}},
        {true, {nack("l", logic)}, {logic + ": l"}},
        {true, {nack("b", bad_source)}, {bad_source + ": b"}},
        {true, {nack("d", "St12out_of_range")}, {plain + "d"}},
        {true, {R"({"xWhat":"d","xTypeId":null})"}, {plain + "d"}},
        {true, {nack(std::string(300, 'x'), "")}, {plain + std::string(255, 'x')}},
        {true, {"{}", "+29998", "{}", "+29998", R"({"payload":7})", "{}"}, {"7"}, replied},
        {true, {"+14999"}, {}},
        {true, {"+15000"}, {timed_out}, {expired, ended}},
        {true, {"+14999", "{}", "+29999"}, {}},
        {true, {"{}", "+30000"}, {timed_out}},
        // What cannot be decoded stops the clock for good, and leaves the request to a better answer.
        {true, {"no json", "[]", R"({"xWhat":1})", R"({"payload":)", "+1000000"}, {}},
        {true, {std::string(200'000, '['), "+1000000", R"({"payload":"at last"})"}, {"\"at last\""}},
    };
    for (const auto& [reply_needed, steps, outcome, lines] : conversations) {
        SCOPED_TRACE(testing::PrintToString(steps).substr(0, 200));
        renew_backend();
        const auto topic = ask_hub(reply_needed);
        outcomes.clear(), logged();
        for (const auto& step : steps) step[0] == '+' ? loop->advance(std::stol(step)) : answer(topic, step);
        EXPECT_EQ(outcome, outcomes);
        texts seen = lines.empty() ? texts{} : logged();
        for (auto& line : seen)
            if (const auto at = line.find(topic); at != std::string::npos)
                line.replace(at, topic.size(), "#");
        EXPECT_EQ(lines, seen);
        loop->advance(outcome.empty() ? 0 : 100'000);
        EXPECT_EQ(outcome.size(), outcomes.size()) << "no time-out follows";
    }
}

TEST_F(request, waits_after_an_acknowledgement_as_long_as_was_set_before_it) {
    const auto topic = ask_hub();
    reqrep_client::set_timeout(5000ms);
    answer(topic, "{}");
    reqrep_client::set_timeout(1ms);
    loop->advance(4999);
    EXPECT_EQ(texts{}, outcomes);
    loop->advance(1);
    EXPECT_EQ(texts{timed_out}, outcomes);
}

TEST_F(request, is_named_by_the_low_16_bits_of_the_last_segment_of_the_reply_topic) {
    const auto of_first = ask_hub(false), replies = of_first.substr(0, of_first.size() - 1);
    while (ask(false) < 17) continue;
    for (const char* const unknown : {"abc", "0", "", "99999", "reply.1.", "0x10"})
        answer(replies + unknown, "{}");
    EXPECT_EQ(texts{}, outcomes);
    for (const char* const known : {"65553", " +16", "x.15y", "-65522", "010"}) answer(replies + known, "{}");
    EXPECT_EQ(5U, outcomes.size());
    logged();
    answer(replies + "10", "{}");
    EXPECT_EQ(2U, logged('0').size()) << "010 was decimal";
}

TEST_F(request, that_is_cancelled_ends_without_a_call) {
    reqrep_client other;
    const auto replies = ask_hub();
    ask();
    EXPECT_EQ(3, ask_by(other));
    logged();
    for (auto* by : {&other, &*client}) by->cancel_request(1);
    EXPECT_EQ((texts{deallocated + "1 pending=2",
                     "1" + log_of + "cancel_request: cancel called for unknown request_id=1"}),
              logged());
    reqrep_client().cancel_all_requests();
    client.reset();
    EXPECT_EQ(texts{}, logged());
    loop->advance(14'999);
    answer(replies + ".3", R"({"payload":"still there"})");
    reqrep_client::backend::instance.reset();
    loop->advance(100'000);
    EXPECT_EQ(texts{"\"still there\""}, outcomes);
}

TEST_F(request, that_is_cancelled_while_it_is_published_stays_so_also_when_its_id_is_used_again) {
    for (const bool refuse : {true, false}) {
        outcomes.clear();
        bool cancelled = false;
        keep_publications()->on_publish = [&] {
            if (std::exchange(cancelled, true)) return;
            client->cancel_all_requests(), ask();
            if (refuse) throw std::runtime_error("refused");
        };
        ask();
        loop->advance(15'000);
        EXPECT_THAT(outcomes, ElementsAre(HasSubstr("timed out"))) << "the one made meanwhile";
    }
    EXPECT_EQ(2U, loop->made_timers.size());
}

TEST_F(request, that_is_made_or_cancelled_leaves_consistent_tables_whatever_allocation_fails) {
    keep_publications();
    reqrep_client other;
    const auto ask_with_last_words = [&] {
        const auto cancel_more = [&](const void*) { other.cancel_all_requests(); };
        const std::shared_ptr<void> held(nullptr, cancel_more);
        ask_by(other), client->request("svc", "get", "", true, [held](auto, const auto&) {});
    };
    test::fail_each_allocation(
        [&] { ask_with_last_words(), client->cancel_all_requests(), ask(), client.emplace(), ask(); },
        [&] {
            loop->advance(15'000);
            outcomes.clear();
            ask(), loop->advance(15'000);
            EXPECT_EQ(1U, outcomes.size());
        });
}

// An id that stayed in the list of the client whose request has ended would end somebody else's with that id.
TEST_F(request, that_has_ended_or_could_not_be_issued_leaves_its_id_to_another_client) {
    const auto without = [&](auto& slot, const std::function<void()>& act) {
        const auto own = std::exchange(slot, nullptr);
        act();
        slot = own;
    };
    auto& publisher = vesk::v1::publisher::backend::instance;
    auto& subscriber = vesk::v1::subscriber::backend::instance;
    const std::vector<std::function<void()>> endings = {
        [&] { without(subscriber, [&] { EXPECT_EQ(0, ask()); }); },
        [&] { without(publisher, [&] { EXPECT_EQ(0, ask()); }); },
        [&] {
            const auto ask_without_callback = [&] { client->request("svc", "get", "", true, nullptr); };
            without(publisher, [&] { EXPECT_THROW(ask_without_callback(), std::bad_function_call); });
        },
        [&] { ask(), loop->advance(15'000); },
        [&] { client->cancel_request(ask()); },
        [&] { ask(), client->cancel_all_requests(); },
    };
    for (const auto& end : endings) {
        renew_backend();
        end();
        reqrep_client other;
        EXPECT_EQ(1, ask_by(other));
        client->cancel_all_requests();
        logged();
        other.cancel_request(1);
        EXPECT_EQ(texts{deallocated + "1 pending=0"}, logged());
    }
    EXPECT_THAT(outcomes, ElementsAre(HasSubstr("St11logic_error: subscriber::subscribe"),
                                      HasSubstr("St11logic_error: publisher::publish"), timed_out));
}

TEST_F(request, gets_an_id_that_is_never_0_and_never_taken) {
    keep_publications();
    const auto quiet = std::exchange(lumo::v1::detail::highest_sink_level, -1);
    for (int id = 1; id <= 65535; ++id) ASSERT_EQ(id, ask());
    EXPECT_EQ(0, ask());
    EXPECT_EQ(texts{"St13runtime_error: all 65535 request ids are outstanding"}, outcomes);
    for (const auto freed : {std::uint16_t{7}, std::uint16_t{9}}) client->cancel_request(freed);
    for (const int id : {7, 9}) EXPECT_EQ(id, ask()) << "skips what is outstanding";
    lumo::v1::detail::highest_sink_level = quiet;
}

TEST_F(request, is_not_ended_by_a_reply_to_a_backend_that_is_gone) {
    const auto topic = ask_hub();
    const auto still_receiving = vesk::v1::subscriber::backend::instance;
    vesk::v1::release_backends();
    hub.relay(topic, "{}");
    for (int turn = 0; turn < 5; ++turn) loop->poll_once(1), loop->advance(1);
    EXPECT_EQ(texts{}, outcomes);
}

TEST_F(request, whose_captures_call_the_bus_when_they_are_destroyed_finds_consistent_tables) {
    reqrep_client other;
    const auto ask_with_last_words = [](reqrep_client& called) {
        const auto last_words = [&called](const void*) {
            called.cancel_all_requests();
            called.request("svc", "get", "", true, [](auto, const auto&) {});
        };
        return called.request("svc", "get", "", true,
                              [held = std::shared_ptr<void>(nullptr, last_words)](auto, const auto&) {});
    };
    for (int i = 0; i < 3; ++i) ask_with_last_words(*client);
    other.cancel_request(ask_with_last_words(other));
    client->cancel_all_requests();
    EXPECT_THAT(log.lines.back(), HasSubstr("pending=2")) << "each client has its last destructor's request";
}

}  // namespace

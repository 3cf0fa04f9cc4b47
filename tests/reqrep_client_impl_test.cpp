#include <optional>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tolvan/vesk/hub/reqrep_client_impl.hpp>

#include "support/allocations.hpp"
#include "support/whole_bus.hpp"

namespace {

using namespace tolvan;
using test::described;
using test::texts;
using testing::HasSubstr;
using testing::MatchesRegex;
using vesk::v1::reqrep_client;

const std::string log_of = " src/hub/reqrep_client_impl ";
const std::string deallocated = "3" + log_of + "discard_outstanding_request: deallocated request_id=";
const std::string timed_out = "N6tolvan4vesk2v113reqrep_client15request_timeoutE: request 1 timed out";

class request : public test::whole_bus {
  protected:
    // Issues a request; its outcome is noted in `outcomes`.
    unsigned short ask(bool reply_needed, const std::string& payload = "", reqrep_client* by = nullptr) {
        return (by == nullptr ? *client : *by)
            .request("svc", "get", payload, reply_needed, [this](const auto* reply, const auto& failure) {
                outcomes.push_back(failure ? described(failure) : reply ? *reply : "acknowledged");
            });
    }

    // Issues a request and reads it at the hub; the first one also tells where answers go.
    unsigned short ask_hub(bool reply_needed) {
        const auto id = ask(reply_needed);
        reply_topic = client_name_in(published().second) + ".reply";
        if (!std::exchange(subscribed, true)) hub.await_filter(hub.set(reply_topic));
        return id;
    }

    void answer(const std::string& id, const std::string& text) {
        relay(reply_topic + "." + id, text);
        loop->advance(1);
    }
    void answer(unsigned short id, const std::string& text) { answer(std::to_string(id), text); }

    // The text between the start of an envelope and the ".reply." in it.
    static std::string client_name_in(const std::string& envelope) {
        const auto begin = envelope.find("reqrep_client-");
        return envelope.substr(begin, envelope.find(".reply.", begin) - begin);
    }

    std::optional<reqrep_client> client{std::in_place};
    std::string reply_topic;
    bool subscribed = false;
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
        const std::string name = client_name_in(envelope);
        EXPECT_THAT(name, MatchesRegex("reqrep_client-[-0-9a-f]+"));
        const std::string replies = name + ".reply." + std::to_string(id);
        EXPECT_EQ("{\"replyTopic\": \"" + replies + "\", \"replyNeeded\": " + tail, envelope);
    }
    EXPECT_EQ(texts{}, logged('1')) << "one subscription is enough";
    ask(true);
    const std::string name = client_name_in(published().second);
    initialize();
    ask(true);
    EXPECT_NE(name, client_name_in(published().second)) << "every backend has a name of its own";
}

// Steps: "+N" lets N ms pass, anything else is an answer. In what is logged, "#" stands for the reply topic.
struct conversation {
    bool reply_needed;
    texts steps, outcomes, logged;
};

TEST_F(request, ends_as_its_answers_and_the_time_say) {
    const std::string received = "3" + log_of + "reply_received: received ";
    const std::string notified = "3" + log_of + "reply_notification: received reply for reply topic=#";
    const std::string reply = received + "actual reply for reply topic=#";
    const std::string ack = received + "ACK for reply topic=#", ended = deallocated + "1 pending=0";
    const std::string expired = "1" + log_of + "timeout_expired: timeout for request_id=1 pub_topic=svc.get";
    const std::string unknown =
        "0" + log_of +
        "request_itr_from_reply_topic: received reply for unknown request_id=1 with reply topic=#; cannot ";
    const auto nack = [](const std::string& what, const std::string& type) {
        return R"({"xWhat":")" + what + R"(","xTypeId":)" + type + "}";
    };
    const std::string runtime = "\"St13runtime_error\"";
    const std::string bad_source = "N6tolvan5sedes2v126bad_deserialization_sourceE";
    const std::string plain = "N6tolvan4vesk3hub15plain_exceptionE: ";
    const std::string numbers = "[18446744073709551615,-9223372036854775808]";
    const texts final_ack{notified, received + "final ACK for reply topic=#", ended};
    const texts nacked{notified, received + "NACK for reply topic=#", ended};
    const texts replied{notified,          ack, notified, ack, notified, reply, ended, unknown + "notify",
                        unknown + "handle"};
    const conversation conversations[] = {
        {false, {"{}"}, {"acknowledged"}, final_ack},
        {false, {R"({"payload":null,"xTypeId":"t"})"}, {"acknowledged"}, {}},
        {false, {R"({"payload":1})"}, {"1"}, {}},
        {true, {R"({"payload": {"b" : 1, "a":)" + numbers + "}}"}, {R"({"b":1,"a":)" + numbers + "}"}, {}},
        {true,
         {R"({"payload":1,"xWhat":"both","xTypeId":)" + runtime + "}"},
         {"St13runtime_error: both"},
         {}},
        {false, {nack("", runtime)}, {"St13runtime_error: "}, nacked},
        {true, {nack("l", "\"St11logic_error\"")}, {"St11logic_error: l"}, {}},
        {true, {nack("b", "\"" + bad_source + "\"")}, {bad_source + ": b"}, {}},
        {true, {nack("d", "\"St12out_of_range\"")}, {plain + "d"}, {}},
        {true, {nack("d", "null")}, {plain + "d"}, {}},
        {true, {nack(std::string(300, 'x'), "\"\"")}, {plain + std::string(255, 'x')}, {}},
        {true, {"{}", "+29998", "{}", "+29998", R"({"payload":7})", "{}"}, {"7"}, replied},
        {true, {"+14999"}, {}, {}},
        {true, {"+15000"}, {timed_out}, {expired, ended}},
        {true, {"+14999", "{}", "+29999"}, {}, {}},
        {true, {"{}", "+30000"}, {timed_out}, {notified, ack, expired, ended}},
        // What cannot be decoded stops the clock for good, and leaves the request to a better answer.
        {true, {"no json", "[]", R"({"xWhat":1})", R"({"payload":)", "+1000000"}, {}, {}},
        {true, {std::string(200'000, '['), "+1000000", R"({"payload":"at last"})"}, {"\"at last\""}, {}},
    };
    for (const auto& [reply_needed, steps, outcome, lines] : conversations) {
        SCOPED_TRACE(testing::PrintToString(steps).substr(0, 200));
        reqrep_client::backend::instance = std::make_shared<vesk::hub::reqrep_client_impl>(loop);
        subscribed = false;
        const auto id = ask_hub(reply_needed);
        outcomes.clear(), logged();
        for (const auto& step : steps) step[0] == '+' ? loop->advance(std::stol(step)) : answer(id, step);
        EXPECT_EQ(outcome, outcomes);
        texts expected = lines;
        for (auto& line : expected)
            if (const auto mark = line.find('#'); mark != std::string::npos)
                line.replace(mark, 1, reply_topic + ".1");
        EXPECT_EQ(expected, lines.empty() ? texts{} : logged());
        if (outcome.empty()) continue;
        loop->advance(100'000);
        EXPECT_EQ(1U, outcomes.size()) << "no time-out follows";
    }
}

TEST_F(request, waits_after_an_acknowledgement_as_long_as_was_set_before_it) {
    const auto id = ask_hub(true);
    EXPECT_EQ((std::pair<std::string, long long>("vesk::reqrep_client_impl[svc.get].timeout", 15000)),
              loop->made_timers.back());
    reqrep_client::set_timeout(std::chrono::milliseconds(5000));
    answer(id, "{}");
    reqrep_client::set_timeout(std::chrono::milliseconds(1));
    loop->advance(4999);
    EXPECT_TRUE(outcomes.empty());
    loop->advance(1);
    EXPECT_EQ(texts{timed_out}, outcomes);
}

TEST_F(request, is_named_by_the_low_16_bits_of_the_last_segment_of_the_reply_topic) {
    for (int i = 0; i < 17; ++i) ask_hub(false);
    logged();
    for (const char* const unknown : {"abc", "0", "", "99999", "reply.1.", "0x10"}) {
        answer(unknown, "{}");
        EXPECT_EQ(2U, logged('0').size()) << unknown;
    }
    EXPECT_TRUE(outcomes.empty());
    for (const char* const known : {"65553", " +16", "x.15y", "-65522", "010"}) answer(known, "{}");
    EXPECT_EQ(5U, outcomes.size());
    logged();
    answer("10", "{}");
    EXPECT_EQ(2U, logged('0').size()) << "010 was decimal";
}

TEST_F(request, that_is_cancelled_ends_without_a_call) {
    reqrep_client other;
    const auto first = ask_hub(true);
    ask_hub(true);
    const auto others = ask(true, "", &other);
    logged();
    other.cancel_request(first);
    client->cancel_request(first);
    EXPECT_EQ((texts{deallocated + "1 pending=2",
                     "1" + log_of + "cancel_request: cancel called for unknown request_id=1"}),
              logged());
    reqrep_client().cancel_all_requests();
    client.reset();
    EXPECT_EQ(texts{}, logged());
    loop->advance(14'999);
    answer(others, R"({"payload":"still there"})");
    reqrep_client::backend::instance.reset();
    loop->advance(100'000);
    EXPECT_EQ(texts{"\"still there\""}, outcomes);
}

TEST_F(request, that_cannot_be_issued_ends_at_once_and_leaves_nothing_behind) {
    auto& publisher = vesk::v1::publisher::backend::instance;
    auto& subscriber = vesk::v1::subscriber::backend::instance;
    const auto own_subscriber = std::exchange(subscriber, nullptr);
    EXPECT_EQ(0, ask(true));
    subscriber = own_subscriber;
    const auto own_publisher = std::exchange(publisher, nullptr);
    EXPECT_EQ(0, ask(true));
    EXPECT_THROW(client->request("svc", "get", "", true, nullptr), std::bad_function_call);
    publisher = own_publisher;
    EXPECT_THAT(outcomes, testing::ElementsAre(HasSubstr("St11logic_error: subscriber::subscribe"),
                                               HasSubstr("St11logic_error: publisher::publish")));
    EXPECT_EQ(2, ask_hub(true)) << "the first id was given out and taken back";
    EXPECT_THAT(log.lines.back(), HasSubstr("pending=1"));
}

TEST_F(request, that_is_cancelled_while_it_is_published_stays_so_also_when_its_id_is_used_again) {
    const auto kept = std::make_shared<test::kept_publications>();
    vesk::v1::publisher::backend::instance = kept;
    for (const bool refuse : {true, false}) {
        outcomes.clear();
        kept->on_publish = [&] { client->cancel_all_requests(), ask(true), kept->refuse = refuse; };
        ask(true);
        kept->refuse = false;
        loop->advance(15'000);
        EXPECT_THAT(outcomes, testing::ElementsAre(HasSubstr("timed out"))) << "the one made meanwhile";
    }
    EXPECT_EQ(2U, loop->made_timers.size());
}

TEST_F(request, that_is_made_or_cancelled_leaves_consistent_tables_whatever_allocation_fails) {
    vesk::v1::publisher::backend::instance = std::make_shared<test::kept_publications>();
    test::fail_each_allocation(
        [&] { ask(true), ask(true), client->cancel_all_requests(), ask(true), client.emplace(), ask(true); },
        [&] {
            loop->advance(15'000);
            outcomes.clear();
            ask(true), loop->advance(15'000);
            EXPECT_EQ(1U, outcomes.size());
        });
}

// An id that stayed in the list of the client whose request has ended would end somebody else's with that id.
TEST_F(request, that_has_ended_leaves_its_id_to_another_client) {
    const std::vector<std::function<void()>> endings = {
        [&] { ask(true), loop->advance(15'000); },
        [&] { client->cancel_request(ask(true)); },
        [&] { ask(true), client->cancel_all_requests(); },
        [&] {
            const auto own = std::exchange(vesk::v1::publisher::backend::instance, nullptr);
            ask(true);
            vesk::v1::publisher::backend::instance = own;
        },
    };
    for (const auto& end : endings) {
        reqrep_client::backend::instance = std::make_shared<vesk::hub::reqrep_client_impl>(loop);
        end();
        reqrep_client other;
        EXPECT_EQ(1, ask(true, "", &other));
        client->cancel_all_requests();
        logged();
        other.cancel_request(1);
        EXPECT_EQ(texts{deallocated + "1 pending=0"}, logged());
    }
}

TEST_F(request, gets_an_id_that_is_never_0_and_never_taken) {
    const auto kept = std::make_shared<test::kept_publications>();
    kept->keep = false;
    vesk::v1::publisher::backend::instance = kept;
    const auto quiet = std::exchange(lumo::v1::detail::highest_sink_level, -1);
    for (int id = 1; id <= 65535; ++id) ASSERT_EQ(id, ask(true));
    EXPECT_EQ(0, ask(true));
    EXPECT_EQ(texts{"St13runtime_error: all 65535 request ids are outstanding"}, outcomes);
    for (const auto freed : {std::uint16_t{7}, std::uint16_t{9}}) client->cancel_request(freed);
    for (const int id : {7, 9}) EXPECT_EQ(id, ask(true)) << "skips what is outstanding";
    lumo::v1::detail::highest_sink_level = quiet;
}

TEST_F(request, is_not_ended_by_a_reply_to_a_backend_that_is_gone) {
    const auto id = ask_hub(true);
    const auto replaced =
        vesk::v1::subscriber::backend::instance;  // still receives, for a client that is gone
    vesk::v1::reqrep_server::backend::instance.reset();
    vesk::v1::subscriber::backend::instance.reset();
    reqrep_client::backend::instance.reset();
    hub.relay(reply_topic + "." + std::to_string(id), "{}");
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

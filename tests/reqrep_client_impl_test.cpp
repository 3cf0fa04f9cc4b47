#include <optional>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tolvan/vesk/hub/reqrep_client_impl.hpp>

#include "support/whole_bus.hpp"

namespace {

using namespace tolvan;
using test::described;
using test::texts;
using testing::HasSubstr;
using testing::MatchesRegex;
using vesk::v1::reqrep_client;

const std::string log_of = " src/hub/reqrep_client_impl ";
const std::string plain = "N6tolvan4vesk3hub15plain_exceptionE: ";

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
        reply_topic = reqrep_client_name(published().second) + ".reply";
        if (std::exchange(subscribed, true)) return id;
        EXPECT_EQ(hub.set(reply_topic), hub.filter());
        return id;
    }

    void receive(unsigned short id, const std::string& answer) {
        relay(reply_topic + "." + std::to_string(id), answer);
    }
    void answer(unsigned short id, const std::string& text) {
        receive(id, text);
        loop->advance(1);
    }

    // The text between the start of an envelope and the ".reply." in it.
    static std::string reqrep_client_name(const std::string& envelope) {
        const auto begin = envelope.find("reqrep_client-");
        return envelope.substr(begin, envelope.find(".reply.", begin) - begin);
    }

    std::optional<reqrep_client> client{std::in_place};
    std::string reply_topic;
    bool subscribed = false;
    texts outcomes;
};

TEST_F(request, travels_as_an_envelope_of_fixed_bytes_on_the_command_topic) {
    struct row {
        bool reply_needed;
        std::string payload, tail;
    };
    int id = 0;
    for (const auto& [reply_needed, payload, tail] : {
             row{true, "", "true}"},
             row{false, "", "false}"},
             row{true, "null", "true, \"payload\": null}"},
             row{false, "{ \"b\":1,\n \"a\" : 2}", "false, \"payload\": { \"b\":1,\n \"a\" : 2}}"},
         }) {
        EXPECT_EQ(++id, ask(reply_needed, payload));
        const auto [topic, envelope] = published();
        EXPECT_EQ("svc.get", topic);
        const std::string name = reqrep_client_name(envelope);
        EXPECT_THAT(name, MatchesRegex("reqrep_client-[-0-9a-f]+"));
        EXPECT_EQ(
            "{\"replyTopic\": \"" + name + ".reply." + std::to_string(id) + "\", \"replyNeeded\": " + tail,
            envelope);
        EXPECT_EQ("3" + log_of + "request: allocated request_id=" + std::to_string(id) + " for reply topic=" +
                      name + ".reply." + std::to_string(id) + " pending=" + std::to_string(id),
                  log.lines.back());
        EXPECT_EQ((std::pair<std::string, long long>("vesk::reqrep_client_impl[svc.get].timeout", 15000)),
                  loop->made_timers.back());
    }
    EXPECT_EQ(texts{}, logged('1')) << "one subscription is enough";
    ask(true);
    const std::string name = reqrep_client_name(published().second);
    initialize();
    ask(true);
    EXPECT_NE(name, reqrep_client_name(published().second)) << "every backend has a name of its own";
}

TEST_F(request, ends_as_its_answer_says) {
    struct row {
        bool reply_needed;
        std::string answer, outcome;
    };
    const std::string runtime = "\"xTypeId\":\"St13runtime_error\"";
    for (const auto& [reply_needed, text, outcome] : {
             row{false, "{}", "acknowledged"},
             row{false, R"({"payload":null,"xTypeId":"t"})", "acknowledged"},
             row{false, R"({"payload":1})", "1"},
             row{true, R"({"payload": {"b" : 1, "a":[18446744073709551615,-9223372036854775808]}})",
                 R"({"b":1,"a":[18446744073709551615,-9223372036854775808]})"},
             row{true, R"({"payload":1,"xWhat":"both",)" + runtime + "}", "St13runtime_error: both"},
             row{false, R"({"xWhat":"",)" + runtime + "}", "St13runtime_error: "},
             row{true, R"({"xWhat":"l","xTypeId":"St11logic_error"})", "St11logic_error: l"},
             row{true, R"({"xWhat":"b","xTypeId":"N6tolvan5sedes2v126bad_deserialization_sourceE"})",
                 "N6tolvan5sedes2v126bad_deserialization_sourceE: b"},
             row{true, R"({"xWhat":"d","xTypeId":"St12out_of_range"})", plain + "d"},
             row{true, R"({"xWhat":"d","xTypeId":null})", plain + "d"},
             row{true, R"({"xWhat":")" + std::string(300, 'x') + R"(","xTypeId":""})",
                 plain + std::string(255, 'x')},
         }) {
        outcomes.clear();
        answer(ask_hub(reply_needed), text);
        EXPECT_EQ(texts{outcome}, outcomes) << text;
        loop->advance(100'000);
        EXPECT_EQ(1U, outcomes.size()) << "no time-out follows";
    }
}

TEST_F(request, that_is_acknowledged_waits_anew_and_ends_with_the_reply) {
    const auto id = ask_hub(true);
    logged();
    reqrep_client::set_timeout(std::chrono::milliseconds(5000));
    for (int acknowledged = 0; acknowledged < 2; ++acknowledged) {
        answer(id, "{}");
        EXPECT_EQ((std::pair<std::string, long long>("vesk::reqrep_client_impl[svc.get].timeout", 5000)),
                  loop->made_timers.back());
        loop->advance(4999);
    }
    receive(id, R"({"payload":7})");
    EXPECT_TRUE(outcomes.empty());
    answer(id, "{}");
    EXPECT_EQ(texts{"7"}, outcomes);
    const std::string topic = reply_topic + "." + std::to_string(id);
    const std::string notified = "3" + log_of + "reply_notification: received reply for reply topic=" + topic;
    const std::string ack = "3" + log_of + "reply_received: received ACK for reply topic=" + topic;
    EXPECT_EQ((texts{notified, ack, notified, ack, notified, notified,
                     "3" + log_of + "reply_received: received actual reply for reply topic=" + topic,
                     "3" + log_of + "discard_outstanding_request: deallocated request_id=1 pending=0"}),
              logged());
}

TEST_F(request, without_an_answer_times_out_first_after_15_s_and_after_an_acknowledgement_as_set) {
    const auto first = ask_hub(true);
    loop->advance(14'999);
    EXPECT_TRUE(outcomes.empty());
    logged();
    loop->advance(1);
    const std::string timed_out = "N6tolvan4vesk2v113reqrep_client15request_timeoutE: request ";
    EXPECT_EQ(texts{timed_out + "1 timed out"}, outcomes);
    EXPECT_EQ((texts{"1" + log_of + "timeout_expired: timeout for request_id=1 pub_topic=svc.get",
                     "3" + log_of + "discard_outstanding_request: deallocated request_id=1 pending=0"}),
              logged());

    answer(first, "{}");
    const std::string unknown = "0" + log_of +
                                "request_itr_from_reply_topic: received reply for unknown request_id=1" +
                                " with reply topic=" + reply_topic + ".1; cannot ";
    EXPECT_EQ((texts{unknown + "notify", unknown + "handle"}), logged());

    outcomes.clear();
    answer(ask_hub(true), "{}");
    loop->advance(29'999);
    EXPECT_TRUE(outcomes.empty());
    loop->advance(1);
    EXPECT_EQ(texts{timed_out + "1 timed out"}, outcomes);
}

TEST_F(request, whose_answer_cannot_be_decoded_no_longer_times_out_but_can_still_be_answered) {
    const auto id = ask_hub(true);
    for (const std::string& hostile :
         {std::string("no json"), std::string("[]"), std::string(R"({"xWhat":1})"),
          std::string(R"({"payload":)"), std::string(200'000, '['),
          R"({"payload":")" + std::string(64 << 20, 'x')}) {
        logged();
        answer(id, hostile);
        const auto errors = logged('0');
        ASSERT_EQ(1U, errors.size());
        EXPECT_THAT(errors[0], HasSubstr("dispatch_one_message: exception caught: "));
    }
    loop->advance(1'000'000);
    EXPECT_TRUE(outcomes.empty());
    answer(id, R"({"payload":"in the end"})");
    EXPECT_EQ(texts{"\"in the end\""}, outcomes);
}

TEST_F(request, is_named_by_the_low_16_bits_of_the_last_segment_of_the_reply_topic) {
    for (int i = 0; i < 17; ++i) ask_hub(false);
    for (const char* const unknown : {".abc", ".0", "", ".99999", ".reply.1."}) {
        logged();
        relay(reply_topic + unknown, "{}");
        loop->advance(1);
        EXPECT_EQ(2U, logged('0').size()) << unknown;
    }
    EXPECT_TRUE(outcomes.empty());
    for (const char* const known : {".65553", ". +16", ".x.15y", ".-65522"}) {
        relay(reply_topic + known, "{}");
        loop->advance(1);
    }
    EXPECT_EQ(4U, outcomes.size());
}

TEST_F(request, that_is_cancelled_ends_without_a_call) {
    reqrep_client other;
    const auto first = ask_hub(true);
    ask_hub(true);
    ask_hub(true);
    const auto others = ask(true, "", &other);
    logged();
    other.cancel_request(first);
    client->cancel_request(first);
    EXPECT_EQ((texts{"3" + log_of + "discard_outstanding_request: deallocated request_id=1 pending=3",
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
    ASSERT_EQ(2U, outcomes.size());
    EXPECT_THAT(outcomes[0], HasSubstr("St11logic_error: subscriber::subscribe"));
    EXPECT_THAT(outcomes[1], HasSubstr("St11logic_error: publisher::publish"));
    EXPECT_EQ(2, ask_hub(true)) << "the first id was given out and taken back";
    EXPECT_THAT(log.lines.back(), HasSubstr("pending=1"));
    EXPECT_EQ(texts{}, logged('2'));
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
        EXPECT_EQ(texts{"3" + log_of + "discard_outstanding_request: deallocated request_id=1 pending=0"},
                  logged());
    }
}

TEST_F(request, gets_an_id_that_is_never_0_and_never_taken) {
    const auto kept = std::make_shared<test::kept_publications>();
    kept->keep = false;
    vesk::v1::publisher::backend::instance = kept;
    const auto quiet = std::exchange(lumo::v1::detail::highest_sink_level, -1);
    EXPECT_EQ(1, ask(true));
    EXPECT_EQ(2, ask(true)) << "1 comes up again and is taken";
    client->cancel_all_requests();
    for (int id = 3; id <= 65535; ++id) {
        ASSERT_EQ(id, ask(true));
        if (id != 4) client->cancel_request(static_cast<unsigned short>(id));
    }
    for (const int id : {1, 2, 3, 5})
        EXPECT_EQ(id, ask(true)) << "after the wrap, skipping what is outstanding";
    client->cancel_all_requests();
    std::set<int> ids;
    for (int i = 0; i < 65535; ++i) ids.insert(ask(true));
    EXPECT_EQ(65535U, ids.size());
    EXPECT_EQ(0U, ids.count(0));
    EXPECT_EQ(0, ask(true));
    EXPECT_EQ(texts{"St13runtime_error: all 65535 request ids are outstanding"}, outcomes);
    lumo::v1::detail::highest_sink_level = quiet;
}

TEST_F(request, is_not_ended_by_a_reply_to_a_backend_that_is_gone) {
    const auto id = ask_hub(true);
    const auto replaced =
        vesk::v1::subscriber::backend::instance;  // still receives, for a client that is gone
    vesk::v1::reqrep_server::backend::instance.reset();
    vesk::v1::subscriber::backend::instance.reset();
    vesk::v1::reqrep_client::backend::instance.reset();
    hub.relay(reply_topic + "." + std::to_string(id), "{}");
    for (int turn = 0; turn < 5; ++turn) loop->poll_once(1), loop->advance(1);
    EXPECT_EQ(texts{}, outcomes);
}

TEST_F(request, whose_captures_call_the_bus_when_they_are_destroyed_finds_consistent_tables) {
    struct cancels {
        explicit cancels(reqrep_client* given) : called(given) {}
        reqrep_client* called;
        ~cancels() {
            called->cancel_all_requests();
            called->request("svc", "get", "", true, [](const auto*, const auto&) {});
        }
    };
    reqrep_client other;
    for (int i = 0; i < 3; ++i)
        client->request("svc", "get", "", true,
                        [held = std::make_shared<cancels>(&*client)](auto, const auto&) {});
    const auto one = other.request("svc", "get", "", true,
                                   [held = std::make_shared<cancels>(&other)](auto, const auto&) {});
    other.cancel_request(one);
    client->cancel_all_requests();
    EXPECT_THAT(log.lines.back(), HasSubstr("pending=2")) << "each client has its last destructor's request";
}

}  // namespace

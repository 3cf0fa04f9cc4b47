#include <map>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/whole_bus.hpp"

namespace {

using namespace tolvan;
using test::described;
using test::texts;
using testing::HasSubstr;
using vesk::v1::reqrep_client;
using vesk::v1::reqrep_server;
using json = sedes::v1::opaque_json_block;

const std::string log_of = " src/hub/reqrep_server_impl ";
const std::string ack = "{}";

std::string nack(const std::string& type, const std::string& what) {
    return R"({"xTypeId":")" + type + R"(","xWhat":")" + what + "\"}";
}

class a_server : public test::whole_bus {
  protected:
    a_server() {
        server->set_uuid("svc");
        keep_answers();
    }

    void keep_answers() { vesk::v1::publisher::backend::instance = answers; }

    using handler = std::function<void(reqrep_server::request&&, json&&)>;

    void serve(const std::string& command, bool reply_needed, handler handle) {
        server->set_command_handler<json>(command, reply_needed, std::move(handle));
        hub.filter();
    }

    static std::string envelope(const std::string& rest) {
        return R"({"replyTopic": "client.reply.1", )" + rest;
    }

    // Relays a request and lets it be handled; gives what was published in answer.
    texts answers_to(const std::string& topic, const std::string& data) {
        answers->messages.clear();
        logged();
        const auto timers = loop->made_timers.size();
        hub.relay(topic, data);
        loop->run_until([&] { return loop->made_timers.size() > timers; });
        loop->advance(1);
        return published_answers();
    }

    texts published_answers() const {
        texts sent;
        for (const auto& [topic, data] : answers->messages) sent.push_back(data);
        return sent;
    }

    std::shared_ptr<test::kept_publications> answers = std::make_shared<test::kept_publications>();
    std::optional<reqrep_server> server{std::in_place};
};

TEST_F(a_server, acknowledges_a_request_before_its_handler_runs_and_publishes_the_reply) {
    logged();
    serve("get", true, [&](auto&& request, auto&& payload) {
        EXPECT_EQ(texts{ack}, published_answers());
        EXPECT_EQ("client.reply.1", request.get_reply_topic());
        request.reply(payload.to_string());
        request.reply("{ \"second\" : 1 }");
    });
    EXPECT_THAT(logged(),
                testing::Contains("3" + log_of +
                                  "set_command_handler: server_id=svc registering handler for command=get"));
    const std::string payload = R"({"b":18446744073709551615,"a":[1,2]})";
    EXPECT_EQ(
        (texts{ack, "{\"payload\":" + payload + "}", R"({"payload":{"second":1}})"}),
        answers_to("svc.get.more.dots", envelope(R"("replyNeeded": true, "payload": )" + payload + "}")));
    EXPECT_EQ("client.reply.1", answers->messages[0].first);
    const std::string road = " for reply topic=client.reply.1 and cmd=get.more.dots";
    EXPECT_EQ((texts{"3" + log_of +
                         "enqueue_request: server_id=svc received request with reply topic=client.reply.1",
                     "3" + log_of + "reply: server_id=svc issuing ACK" + road,
                     "3" + log_of + "reply: server_id=svc issuing actual reply" + road,
                     "3" + log_of + "reply: server_id=svc issuing actual reply" + road}),
              logged());
    logged();
    server->unset_all_handlers();
    EXPECT_EQ("3" + log_of + "unset_all_handlers: unregistering server_id=svc", logged()[0]);
    EXPECT_EQ(hub.removed("svc.get"), hub.filter());
}

TEST_F(a_server, gives_its_handler_the_payload_as_the_deserializer_makes_it) {
    std::vector<std::string> payloads;
    serve("get", true, [&](auto&&, auto&& payload) { payloads.push_back(payload.to_string()); });
    answers_to("svc.get", envelope(R"("replyNeeded": true})"));
    answers_to("svc.get", envelope(R"("replyNeeded": true, "payload": null, "unknown": []})"));
    EXPECT_EQ((texts{"null", "null"}), payloads);
    server->set_command_handler("raw", true, nullptr, [&](auto&&, auto payload) { EXPECT_FALSE(payload); });
    hub.filter();
    const std::string request = envelope(R"("replyNeeded": true, "payload": 1})");
    EXPECT_EQ(texts{ack}, answers_to("svc.raw", request));
    EXPECT_EQ(texts{ack}, answers_to("svc.get", request)) << "commands share one state";
}

TEST_F(a_server, goes_by_its_own_registration_when_the_client_is_wrong_about_the_reply) {
    serve("get", false, [](auto&& request, auto&&) { request.reply("1"); });
    EXPECT_EQ((texts{ack, R"({"payload":1})"}), answers_to("svc.get", envelope(R"("replyNeeded": true})")))
        << "a reply is published also where none is needed";
    EXPECT_EQ(
        (texts{
            "1" + log_of +
            "enqueue_request: client’s knowledge of cmd=get reply_needed is wrong (true instead of false); "
            "please fix client"}),
        logged('1'));
}

TEST_F(a_server, answers_what_goes_wrong_with_a_nack) {
    const std::string latin = "caf\xe9";
    struct row {
        std::string command;
        handler handle;
        texts expected;
        std::string logged;
    };
    for (const auto& [command, handle, expected, line] : {
             row{"runtime",
                 [](auto&&, auto&&) { throw std::runtime_error("its text"); },
                 {ack, nack("St13runtime_error", "its text")},
                 "exception caught (St13runtime_error): its text"},
             row{"latin",
                 [&](auto&&, auto&&) { throw std::logic_error(latin); },
                 {ack, nack("St11logic_error", "caf\ufffd")},
                 "exception caught (St11logic_error): " + latin},
             row{"int",
                 [](auto&&, auto&&) { throw 1; },
                 {ack, R"({"xWhat":"unknown exception"})"},
                 "exception caught (no more info available)"},
             row{"empty",
                 nullptr,
                 {ack, nack("St17bad_function_call", "bad_function_call")},
                 "exception caught (St17bad_function_call): bad_function_call"},
         }) {
        serve(command, true, handle);
        EXPECT_EQ(expected, answers_to("svc." + command, envelope(R"("replyNeeded": true})")));
        EXPECT_EQ(texts{"0" + log_of + "enqueue_request: " + line}, logged('1'));
    }
    server->set_command_handler<std::string>("typed", true, [](auto&&, auto&&) { FAIL(); });
    hub.filter();
    const auto refused = answers_to("svc.typed", envelope(R"("replyNeeded": true, "payload": 1})"));
    ASSERT_EQ(1U, refused.size()) << "no acknowledgement for what cannot be decoded";
    EXPECT_THAT(refused[0], HasSubstr("N6tolvan5sedes2v126bad_deserialization_sourceE"));
}

TEST_F(a_server, nacks_requests_to_an_identity_that_is_not_its_own_any_more) {
    serve("get", true, [](auto&&, auto&&) { FAIL(); });
    server->set_uuid("new");
    const texts internal{nack("St11logic_error", "internal dispatching error")};
    EXPECT_EQ(internal, answers_to("svc.get", envelope(R"("replyNeeded": true})")));
    EXPECT_EQ(
        (texts{
            "1" + log_of +
            "enqueue_request: received request for a server that changed identification from “svc” to “new” "
            "after setting command handler – bug in your server code? NACKing"}),
        logged('1'));
    server->set_uuid("with.dot");
    serve("get", true, [](auto&&, auto&&) { FAIL(); });
    EXPECT_EQ(internal, answers_to("with.dot.get", envelope(R"("replyNeeded": true})")));
}

// A subscriber backend that hands a request over on any topic, as the hub never would.
class direct_calls : public vesk::v1::subscriber::backend {
  public:
    void revoke_subscriptions(vesk::v1::subscriber*) override {}
    void subscribe(vesk::v1::subscriber*, const std::string&, std::function<void(const std::string&)>&&,
                   std::function<void(const std::string&, const std::string&)>&& handle) override {
        deliver = std::move(handle);
    }
    std::function<void(const std::string&, const std::string&)> deliver;
};

TEST_F(a_server, nacks_a_topic_without_a_command_and_drops_requests_for_a_server_that_is_gone) {
    const auto direct = std::make_shared<direct_calls>();
    vesk::v1::subscriber::backend::instance = direct;
    server->set_command_handler<json>("get", true, [](auto&&, auto&&) { FAIL(); });
    const std::string request = envelope(R"("replyNeeded": true})");
    logged();
    direct->deliver("svc", request);
    EXPECT_EQ(texts{nack("St13runtime_error", "malformed topic")}, published_answers());
    EXPECT_EQ(texts{"1" + log_of +
                    "enqueue_request: server_id=svc received request with malformed topic=“svc”; NACKing"},
              logged('1'));
    answers->messages.clear();
    server.reset();
    logged();
    direct->deliver("svc.get", request);
    EXPECT_EQ(texts{"1" + log_of + "enqueue_request: request received for a reqrep_server that’s gone"},
              logged());
    EXPECT_EQ(texts{}, published_answers());
}

TEST_F(a_server, survives_envelopes_that_cannot_be_decoded) {
    serve("get", true, [](auto&& request, auto&&) { request.reply("1"); });
    for (const std::string& hostile :
         {std::string(), std::string("no json"), std::string("[]"), std::string("null"),
          std::string(R"({"replyTopic": 1, "replyNeeded": true})"), std::string(R"({"replyTopic": "t"})"),
          std::string(R"({"replyNeeded": true})"),
          std::string(R"({"replyTopic": "t", "replyNeeded": "yes"})"), std::string(200'000, '[')}) {
        EXPECT_EQ(texts{}, answers_to("svc.get", hostile)) << hostile.substr(0, 50);
        const auto errors = logged('0');
        ASSERT_EQ(1U, errors.size());
        EXPECT_THAT(errors[0], HasSubstr("dispatch_one_message: exception caught: "));
    }
    for (const char* const topic : {"", "a:b:c", "\\n%s"}) {
        EXPECT_EQ(2U, answers_to("svc.get",
                                 R"({"replyTopic": ")" + std::string(topic) + R"(", "replyNeeded": true})")
                          .size());
        EXPECT_EQ(topic == std::string("\\n%s") ? "\n%s" : topic, answers->messages[0].first);
    }
}

TEST_F(a_server, refuses_replies_that_are_not_json_and_publications_that_fail) {
    std::optional<reqrep_server::request> kept;
    serve("get", true, [&](auto&& request, auto&&) { kept = request; });
    answers_to("svc.get", envelope(R"("replyNeeded": true})"));
    logged();
    const std::string road = " for reply topic=client.reply.1 and cmd=get: ";
    EXPECT_THROW(kept->reply("no json"), sedes::v1::bad_deserialization_source);
    EXPECT_THAT(logged('0')[0], HasSubstr("0" + log_of + "reply: server_id=svc could not reply" + road));
    kept->fail(std::runtime_error("later"));
    EXPECT_EQ(nack("St13runtime_error", "later"), published_answers().back());
    answers->refuse = true;
    EXPECT_THROW(kept->reply("1"), std::runtime_error);
    EXPECT_EQ(texts{}, answers_to("svc.get", envelope(R"("replyNeeded": true})")));
    EXPECT_EQ((texts{"0" + log_of + "reply: server_id=svc could not ACK" + road + "refused",
                     "0" + log_of + "enqueue_request: exception caught (St13runtime_error): refused",
                     "0" + log_of + "reply: server_id=svc could not NACK" + road + "refused"}),
              logged('0'));
    answers->refuse_with_int = true;
    logged();
    EXPECT_THROW(kept->reply("1"), int);
    EXPECT_EQ(texts{"0" + log_of +
                    "reply: server_id=svc could not reply for reply topic=client.reply.1 and cmd=get; "
                    "no more info available"},
              logged('0'));
    const reqrep_server::request taken = std::move(*kept);
    EXPECT_THROW(kept->reply("1"), std::logic_error);
}

TEST_F(a_server, that_has_unregistered_refuses_answers_to_what_it_had_received) {
    std::optional<reqrep_server::request> kept;
    const auto keep = [&](auto&& request, auto&&) { kept = request; };
    serve("get", true, keep);
    answers_to("svc.get", envelope(R"("replyNeeded": true})"));
    server->unset_all_handlers();
    hub.filter();
    serve("get", true, keep);
    logged();
    kept->reply("1");
    EXPECT_EQ(texts{"0" + log_of + "reply: using request after server that received it is gone"}, logged());
    EXPECT_EQ(texts{ack}, published_answers());
    EXPECT_EQ(texts{ack}, answers_to("svc.get", envelope(R"("replyNeeded": true})"))) << "registered afresh";
}

TEST_F(a_server, answers_the_request_at_hand_whatever_its_handler_does_unless_it_destroys_the_server) {
    const std::string gone = "reply: using request after server that received it is gone";
    const std::string nacked = nack("St13runtime_error", "afterwards");
    struct row {
        std::string name;
        std::function<void()> act;
        texts answers;
        std::string last_error;
    };
    for (const auto& [name, act, expected, last_error] : {
             row{"unregister",
                 [&] { server->unset_all_handlers(); },
                 {ack, R"({"payload":1})", nacked},
                 "exception caught (St13runtime_error): afterwards"},
             row{"initialize",
                 [&] { initialize(), keep_answers(); },
                 {ack, R"({"payload":1})", nacked},
                 "exception caught (St13runtime_error): afterwards"},
             row{"destroy", [&] { server.reset(); }, {ack}, gone},
             row{"both", [&] { initialize(), keep_answers(), server.reset(); }, {ack}, gone},
             row{"release",
                 [&] { vesk::v1::release_backends(); },
                 {ack},
                 "reply: server_id=svc could not NACK"},
         }) {
        server.emplace().set_uuid("svc");
        initialize();
        keep_answers();
        server->set_command_handler<json>("get", true,
                                          [&, act = act, own = std::string(50, 'o')](auto&& request, auto&&) {
                                              act();
                                              request.reply("1");
                                              EXPECT_EQ(std::string(50, 'o'), own);
                                              throw std::runtime_error("afterwards");
                                          });
        while (hub.filter() != hub.set("svc.get")) {
        }
        EXPECT_EQ(expected, answers_to("svc.get", envelope(R"("replyNeeded": true})"))) << name;
        EXPECT_THAT(logged('0').back(), HasSubstr(last_error)) << name;
    }
}

}  // namespace

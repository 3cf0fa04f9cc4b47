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

    static std::string envelope(const std::string& rest = "}") {
        return R"({"replyTopic": "client.reply.1", "replyNeeded": true)" + rest;
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
    std::optional<reqrep_server::request> kept;
    serve("get", true, [&](auto&& request, auto&& payload) {
        EXPECT_EQ(texts{ack}, published_answers());
        kept = request;
        request.reply(payload.to_string());
        request.reply("{ \"second\" : 1 }");
    });
    EXPECT_EQ("3" + log_of + "set_command_handler: server_id=svc registering handler for command=get",
              logged()[0]);
    const std::string payload = R"({"b":18446744073709551615,"a":[1,2]})";
    EXPECT_EQ((texts{ack, "{\"payload\":" + payload + "}", R"({"payload":{"second":1}})"}),
              answers_to("svc.get.more.dots", envelope(R"(, "payload": )" + payload + "}")));
    EXPECT_EQ("client.reply.1", answers->messages[0].first);
    const std::string reply_topic = "reply topic=client.reply.1", server_id = "server_id=svc ";
    const std::string issuing = "3" + log_of + "reply: " + server_id + "issuing ";
    const std::string road = " for " + reply_topic + " and cmd=get.more.dots";
    const std::string received = "3" + log_of + "enqueue_request: " + server_id + "received request with ";
    EXPECT_EQ((texts{received + reply_topic, issuing + "ACK" + road, issuing + "actual reply" + road,
                     issuing + "actual reply" + road}),
              logged());
    server->unset_all_handlers();
    EXPECT_EQ("3" + log_of + "unset_all_handlers: unregistering server_id=svc", logged()[0]);
    EXPECT_EQ(hub.removed("svc.get"), hub.filter());
    kept->reply("1");
    EXPECT_EQ(texts{"0" + log_of + "reply: using request after server that received it is gone"}, logged());
    EXPECT_EQ(3U, answers->messages.size());
    serve("get", true, [](auto&&, auto&&) {});
    EXPECT_EQ(texts{ack}, answers_to("svc.get", envelope())) << "registered afresh";
}

TEST_F(a_server, answers_each_request_as_its_envelope_and_its_handler_say) {
    const std::string latin = "\xe9", needed = R"("replyNeeded": true)";
    const auto echo = [](auto&& request, auto&& payload) { request.reply(payload.to_string()); };
    serve("echo", true, echo);
    serve("quiet", false, [](auto&& request, auto&&) { request.reply("1"); });
    serve("runtime", true, [](auto&&, auto&&) { throw std::runtime_error("text"); });
    serve("latin", true, [&](auto&&, auto&&) { throw std::logic_error(latin); });
    serve("int", true, [](auto&&, auto&&) { throw 1; });
    serve("empty", true, nullptr);
    server->set_command_handler("raw", true, nullptr, [](auto&&, auto payload) { EXPECT_FALSE(payload); });
    server->set_command_handler<std::string>("typed", true, [](auto&&, auto&&) { FAIL(); });
    hub.filter(), hub.filter();
    const std::string decoding = "N6tolvan5sedes2v126bad_deserialization_sourceE";
    const std::string undecodable = "dispatch_one_message: exception caught: ";
    const std::string exception = "enqueue_request: exception caught (";
    const std::string wrong =
        "client’s knowledge of cmd=quiet reply_needed is wrong (true instead of false); please fix client";
    const std::string asked = envelope(), with_1 = envelope(R"(, "payload": 1})");
    const std::string reply_1 = R"({"payload":1})", unknown = R"({"xWhat":"unknown exception"})";
    const std::string failed_call = nack("St17bad_function_call", "bad_function_call");
    const std::string refused = nack(decoding, "expected a string, found an integer");
    struct row {
        std::string command, data;
        texts answers;
        std::string logged;  // a part of the one line of level 0 or 1; empty for none
    };
    const row rows[] = {
        {"echo", with_1, {ack, reply_1}, ""},
        {"raw", with_1, {ack}, ""},
        {"quiet", asked, {ack, reply_1}, "1" + log_of + "enqueue_request: " + wrong},
        {"runtime", asked, {ack, nack("St13runtime_error", "text")}, exception + "St13runtime_error): text"},
        {"latin", asked, {ack, nack("St11logic_error", "\ufffd")}, exception + "St11logic_error): " + latin},
        {"int", asked, {ack, unknown}, exception + "no more info available)"},
        {"empty", asked, {ack, failed_call}, exception + "St17bad_function_call): bad_function_call"},
        {"typed", with_1, {refused}, exception + decoding + "): "},
        {"echo", "", {}, undecodable},
        {"echo", "null", {}, undecodable},
        {"echo", R"({"replyTopic": 1, )" + needed + "}", {}, undecodable},
        {"echo", R"({"replyTopic": "t"})", {}, undecodable},
        {"echo", "{" + needed + "}", {}, undecodable},
        {"echo", R"({"replyTopic": "t", "replyNeeded": "yes"})", {}, undecodable},
        {"echo", std::string(200'000, '['), {}, undecodable},
        {"echo", with_1, {ack, reply_1}, ""},
    };
    for (const auto& [command, data, expected, line] : rows) {
        EXPECT_EQ(expected, answers_to("svc." + command, data)) << command << data.substr(0, 99);
        const auto lines = logged('1');
        ASSERT_EQ(line.empty() ? 0U : 1U, lines.size()) << command << data.substr(0, 99);
        EXPECT_THAT(line.empty() ? "" : lines[0], HasSubstr(line));
    }
    for (const std::string topic : {"", "a:b:c", "%s%n"}) {
        const std::string reply_topic = R"({"replyTopic": ")" + topic;
        EXPECT_EQ(2U, answers_to("svc.echo", reply_topic + R"(", "payload": 1, )" + needed + "}").size());
        EXPECT_EQ(topic, answers->messages[0].first);
    }
}

TEST_F(a_server, nacks_requests_to_an_identity_that_is_not_its_own_any_more) {
    serve("get", true, [](auto&&, auto&&) { FAIL(); });
    server->set_uuid("new");
    const texts internal{nack("St11logic_error", "internal dispatching error")};
    EXPECT_EQ(internal, answers_to("svc.get", envelope()));
    EXPECT_EQ(
        (texts{
            "1" + log_of +
            "enqueue_request: received request for a server that changed identification from “svc” to “new” "
            "after setting command handler – bug in your server code? NACKing"}),
        logged('1'));
    server->set_uuid("with.dot");
    serve("get", true, [](auto&&, auto&&) { FAIL(); });
    EXPECT_EQ(internal, answers_to("with.dot.get", envelope()));
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
    const std::string request = envelope();
    logged();
    direct->deliver("svc", request);
    EXPECT_EQ(texts{nack("St13runtime_error", "malformed topic")}, published_answers());
    EXPECT_EQ(texts{"1" + log_of +
                    "enqueue_request: server_id=svc received request with malformed topic=“svc”; NACKing"},
              logged('1'));
    answers->messages.clear();
    server.reset();
    direct->deliver("svc.get", request);
    EXPECT_EQ((texts{"3" + log_of + "unset_all_handlers: unregistering server_id=svc",
                     "1" + log_of + "enqueue_request: request received for a reqrep_server that’s gone"}),
              logged());
    EXPECT_EQ(texts{}, published_answers());
}

TEST_F(a_server, refuses_replies_that_are_not_json_and_publications_that_fail) {
    std::optional<reqrep_server::request> kept;
    serve("get", true, [&](auto&& request, auto&&) { kept = request; });
    answers_to("svc.get", envelope());
    logged();
    const std::string road = " for reply topic=client.reply.1 and cmd=get";
    const std::string failed = "0" + log_of + "reply: server_id=svc could not ";
    EXPECT_THROW(kept->reply("no json"), sedes::v1::bad_deserialization_source);
    EXPECT_THAT(logged('0')[0], HasSubstr(failed + "reply" + road + ": "));
    kept->fail(std::runtime_error("later"));
    EXPECT_EQ(nack("St13runtime_error", "later"), published_answers().back());
    answers->refuse = true;
    EXPECT_THROW(kept->reply("1"), std::runtime_error);
    EXPECT_EQ(texts{}, answers_to("svc.get", envelope()));
    const std::string caught =
        "0" + log_of + "enqueue_request: exception caught (St13runtime_error): refused";
    EXPECT_EQ((texts{failed + "ACK" + road + ": refused", caught, failed + "NACK" + road + ": refused"}),
              logged('0'));
    answers->refuse_with_int = true;
    EXPECT_THROW(kept->reply("1"), int);
    EXPECT_EQ(texts{failed + "reply" + road + "; no more info available"}, logged('0'));
    const reqrep_server::request taken = std::move(*kept);
    EXPECT_THROW(kept->reply("1"), std::logic_error);
}

TEST_F(a_server, answers_under_the_address_of_one_that_went_while_no_backend_was_there) {
    serve("get", true, [](auto&&, auto&&) {});
    const auto own = std::exchange(reqrep_server::backend::instance, nullptr);
    server.emplace().set_uuid("svc");
    reqrep_server::backend::instance = own;
    serve("get", true, [](auto&& request, auto&&) { request.reply("1"); });
    EXPECT_EQ((texts{ack, R"({"payload":1})"}), answers_to("svc.get", envelope()));
}

TEST_F(a_server, answers_the_request_at_hand_whatever_its_handler_does_unless_it_destroys_the_server) {
    const std::string gone = "reply: using request after server that received it is gone";
    const std::string thrown = "exception caught (St13runtime_error): afterwards";
    const texts all{ack, R"({"payload":1})", nack("St13runtime_error", "afterwards")};
    const auto initialize_again = [&] { initialize(), keep_answers(); };
    struct row {
        std::string name;
        std::function<void(const reqrep_server::request&)> act;
        texts answers;
        std::string last_error;
    };
    const auto add_last_words = [&](const reqrep_server::request& request) {
        const std::shared_ptr<void> last_words(nullptr, [request](void*) { request.reply("2"); });
        server->set_command_handler<json>("other", true, [last_words](auto&&, auto&&) {});
    };
    const row rows[] = {
        {"unregister", [&](auto&) { server->unset_all_handlers(); }, all, thrown},
        {"initialize", [&](auto&) { initialize_again(); }, all, thrown},
        {"destroy", [&](auto& request) { add_last_words(request), server.reset(); }, {ack}, gone},
        {"both", [&](auto&) { initialize_again(), server.reset(); }, {ack}, gone},
        {"release",
         [](auto&) { vesk::v1::release_backends(); },
         {ack},
         "reply: server_id=svc could not NACK"},
    };
    for (const auto& [name, act, expected, last_error] : rows) {
        server.emplace().set_uuid("svc");
        initialize_again();
        server->set_command_handler<json>("get", true,
                                          [&, act = act, own = std::string(50, 'o')](auto&& request, auto&&) {
                                              act(request);
                                              request.reply("1");
                                              EXPECT_EQ(std::string(50, 'o'), own);
                                              throw std::runtime_error("afterwards");
                                          });
        hub.await_filter(hub.set("svc.get"));
        EXPECT_EQ(expected, answers_to("svc.get", envelope())) << name;
        EXPECT_THAT(logged('0').back(), HasSubstr(last_error)) << name;
    }
}

}  // namespace

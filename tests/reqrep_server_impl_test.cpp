#include <array>
#include <optional>
#include <tuple>

#include <gmock/gmock.h>

#include "support/whole_bus.hpp"

namespace {

using namespace tolvan;
using test::texts;
using testing::HasSubstr;
using vesk::v1::reqrep_server;
using json = sedes::v1::opaque_json_block;

const std::string log_of = " src/hub/reqrep_server_impl ";
const std::string ack = "{}", reply_1 = R"({"payload":1})";
const std::string gone = "0" + log_of + "reply: using request after server that received it is gone";

std::string nack(const std::string& type, const std::string& what) {
    return R"({"xTypeId":")" + type + R"(","xWhat":")" + what + "\"}";
}

class a_server : public test::whole_bus {
  protected:
    a_server() { server->set_uuid("svc"); }

    using handler = std::function<void(reqrep_server::request&&, json&&)>;

    void serve(const std::string& command, handler handle, bool reply_needed = true) {
        server->set_command_handler<json>(command, reply_needed, std::move(handle));
        settle();
    }

    // The request of a client that needs a reply.
    static std::string envelope(const std::string& rest = "}") {
        return R"({"replyTopic": "client.reply.1", "replyNeeded": true)" + rest;
    }

    // Relays a request and lets it be handled; gives what was published in answer.
    texts answers_to(const std::string& topic, const std::string& data) {
        answers->topics.clear(), answers->texts.clear(), logged();
        const auto timers = loop->made_timers.size();
        hub.relay(topic, data);
        loop->run_until([&] { return loop->made_timers.size() > timers; });
        loop->advance(1);
        return answers->texts;
    }

    std::shared_ptr<test::kept_publications> answers = keep_publications();
    std::optional<reqrep_server> server{std::in_place};
};

TEST_F(a_server, acknowledges_a_request_before_its_handler_runs_and_answers_until_it_unregisters) {
    logged();
    std::optional<reqrep_server::request> kept;
    serve("get", [&](auto&& request, auto&& payload) {
        EXPECT_EQ(texts{ack}, answers->texts);
        kept = request;
        request.reply(payload.to_string());
        request.reply("{ \"second\" : 1 }");
    });
    EXPECT_EQ("3" + log_of + "set_command_handler: server_id=svc registering handler for command=get",
              logged()[0]);
    const std::string payload = R"({"b":18446744073709551615,"a":[1,2]})";
    EXPECT_EQ((texts{ack, "{\"payload\":" + payload + "}", R"({"payload":{"second":1}})"}),
              answers_to("svc.get.more.dots", envelope(R"(, "payload": )" + payload + "}")));
    EXPECT_EQ("client.reply.1", answers->topics[0]);
    const std::string road = " for reply topic=client.reply.1 and cmd=get.more.dots";
    const std::string replying = "3" + log_of + "reply: server_id=svc issuing actual reply" + road;
    EXPECT_EQ((texts{"3" + log_of +
                         "enqueue_request: server_id=svc received request with reply topic=client.reply.1",
                     "3" + log_of + "reply: server_id=svc issuing ACK" + road, replying, replying}),
              logged());
    server->unset_all_handlers();
    EXPECT_EQ("3" + log_of + "unset_all_handlers: unregistering server_id=svc", logged()[0]);
    EXPECT_EQ(hub.removed("svc.get"), hub.filter());
    kept->reply("1");
    EXPECT_EQ(texts{gone}, logged());
    EXPECT_EQ(3U, answers->texts.size());
    serve("get", nullptr);
    EXPECT_EQ(ack, answers_to("svc.get", envelope()).at(0)) << "registered afresh";
}

TEST_F(a_server, answers_each_request_as_its_envelope_and_its_handler_say) {
    const std::string latin = "\xe9", needed = R"("replyNeeded": true)";
    const auto echo = [](auto&& request, auto&& payload) { request.reply(payload.to_string()); };
    serve("echo", echo);
    const auto reply = [](auto&& request, auto&&) { request.reply("1"); };
    serve("quiet", reply, false);
    server->set_command_handler("raw", true, nullptr, [](auto&&, auto payload) { EXPECT_FALSE(payload); });
    server->set_command_handler<std::string>("typed", true, [](auto&&, auto&&) { FAIL(); });
    serve("runtime", [](auto&&, auto&&) { throw std::runtime_error("text"); });
    serve("latin", [&](auto&&, auto&&) { throw std::logic_error(latin); });
    serve("int", [](auto&&, auto&&) { throw 1; });
    serve("empty", nullptr);
    const std::string decoding = "N6tolvan5sedes2v126bad_deserialization_sourceE";
    const std::string undecodable = "dispatch_one_message: exception caught: ";
    const std::string exception = "enqueue_request: exception caught (";
    const std::string wrong =
        "client’s knowledge of cmd=quiet reply_needed is wrong (true instead of false); please fix client";
    const std::string asked = envelope(), with_1 = envelope(R"(, "payload": 1})");
    const std::string failed_call = nack("St17bad_function_call", "bad_function_call");
    const std::string refused = nack(decoding, "expected a string, found an integer");
    // Command, data, answers, and a part of the one line that is logged at level 0 or 1.
    const std::tuple<std::string, std::string, texts, std::string> rows[] = {
        {"echo", with_1, {ack, reply_1}, ""},
        {"raw", with_1, {ack}, ""},
        {"quiet", asked, {ack, reply_1}, "1" + log_of + "enqueue_request: " + wrong},
        {"runtime", asked, {ack, nack("St13runtime_error", "text")}, exception + "St13runtime_error): text"},
        {"latin", asked, {ack, nack("St11logic_error", "\ufffd")}, exception + "St11logic_error): " + latin},
        {"int", asked, {ack, R"({"xWhat":"unknown exception"})"}, exception + "no more info available)"},
        {"empty", asked, {ack, failed_call}, exception + "St17bad_function_call): bad_function_call"},
        {"typed", with_1, {refused}, exception + decoding + "): "},
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
        EXPECT_EQ(topic, answers->topics[0]);
    }
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

TEST_F(a_server, nacks_what_was_not_sent_to_it_and_drops_what_comes_when_it_is_gone) {
    const auto direct = std::make_shared<direct_calls>();
    vesk::v1::subscriber::backend::instance = direct;
    server->set_command_handler<json>("get", true, [](auto&&, auto&&) { FAIL(); });
    const std::string warning = "1" + log_of + "enqueue_request: ";
    const std::string internal = nack("St11logic_error", "internal dispatching error");
    const auto changed = [](const std::string& from, const std::string& to) {
        return "received request for a server that changed identification from “" + from + "” to “" + to +
               "” after setting command handler – bug in your server code? NACKing";
    };
    const std::array<std::string, 4> rows[] = {
        {"svc", "svc", nack("St13runtime_error", "malformed topic"),
         "server_id=svc received request with malformed topic=“svc”; NACKing"},
        {"new", "svc.get", internal, changed("svc", "new")},
        {"with.dot", "with.dot.get", internal, changed("with", "with.dot")},
    };
    for (const auto& [identity, topic, answer, line] : rows) {
        server->set_uuid(identity);
        answers->texts.clear(), logged();
        direct->deliver(topic, envelope());
        EXPECT_EQ(texts{answer}, answers->texts);
        EXPECT_EQ(texts{warning + line}, logged('1'));
    }
    answers->texts.clear();
    server.reset();
    direct->deliver("svc.get", envelope());
    EXPECT_EQ((texts{"3" + log_of + "unset_all_handlers: unregistering server_id=with.dot",
                     warning + "request received for a reqrep_server that’s gone"}),
              logged());
    EXPECT_EQ(texts{}, answers->texts);
}

TEST_F(a_server, refuses_replies_that_are_not_json_and_publications_that_fail) {
    std::optional<reqrep_server::request> kept;
    serve("get", [&](auto&& request, auto&&) { kept = request; });
    answers_to("svc.get", envelope());
    logged();
    const std::string road = " for reply topic=client.reply.1 and cmd=get";
    const std::string failed = "0" + log_of + "reply: server_id=svc could not ";
    EXPECT_THROW(kept->reply("no json"), sedes::v1::bad_deserialization_source);
    EXPECT_THAT(logged('0')[0], HasSubstr(failed + "reply" + road + ": "));
    kept->fail(std::runtime_error("later"));
    EXPECT_EQ(nack("St13runtime_error", "later"), answers->texts.back());
    answers->on_publish = [] { throw std::runtime_error("refused"); };
    EXPECT_THROW(kept->reply("1"), std::runtime_error);
    EXPECT_EQ(texts{}, answers_to("svc.get", envelope()));
    const std::string caught =
        "0" + log_of + "enqueue_request: exception caught (St13runtime_error): refused";
    EXPECT_EQ((texts{failed + "ACK" + road + ": refused", caught, failed + "NACK" + road + ": refused"}),
              logged('0'));
    answers->on_publish = [] { throw 1; };
    EXPECT_THROW(kept->reply("1"), int);
    EXPECT_EQ(texts{failed + "reply" + road + "; no more info available"}, logged('0'));
    const reqrep_server::request taken = std::move(*kept);
    EXPECT_THROW(kept->reply("1"), std::logic_error);
}

TEST_F(a_server, answers_under_the_address_of_one_that_went_while_no_backend_was_there) {
    serve("get", [](auto&&, auto&&) {});
    const auto own = std::exchange(reqrep_server::backend::instance, nullptr);
    server.emplace().set_uuid("svc");
    reqrep_server::backend::instance = own;
    serve("get", [](auto&& request, auto&&) { request.reply("1"); });
    EXPECT_EQ((texts{ack, reply_1}), answers_to("svc.get", envelope()));
}

TEST_F(a_server, answers_the_request_at_hand_whatever_its_handler_does_unless_it_destroys_the_server) {
    const std::string thrown = "exception caught (St13runtime_error): afterwards";
    const texts all{ack, reply_1, nack("St13runtime_error", "afterwards")};
    const auto initialize_again = [&] { initialize(), vesk::v1::publisher::backend::instance = answers; };
    const auto add_last_words = [&](const reqrep_server::request& request) {
        const std::shared_ptr<void> last_words(nullptr, [request](void*) { request.reply("2"); });
        server->set_command_handler<json>("other", true, [last_words](auto&&, auto&&) {});
    };
    const std::tuple<std::string, std::function<void(const reqrep_server::request&)>, texts, std::string>
        rows[] = {
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
        serve("get", [&, act = act](auto&& request, auto&&) {
            act(request);
            request.reply("1");
            throw std::runtime_error("afterwards");
        });
        EXPECT_EQ(expected, answers_to("svc.get", envelope())) << name;
        EXPECT_THAT(logged('0').back(), HasSubstr(last_error)) << name;
    }
}

}  // namespace

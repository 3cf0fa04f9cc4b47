// Every call of the bus from inside every kind of callback, once with a callback that returns and once with
// one that throws. What must hold afterwards: the callback's captures have lived until it returned, the call
// has had its effect, everything that it did not touch works, and no request has ended twice.
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include <gmock/gmock.h>

#include "support/whole_bus.hpp"

namespace {

using namespace tolvan;
using namespace tolvan::test;
using vesk::v1::reqrep_client;
using vesk::v1::reqrep_server;
using vesk::v1::subscriber;

using names = std::set<std::string>;

/// A process with all kinds of bus objects.
struct application : whole_bus {
    using whole_bus::initialize;

    application() {
        hear("listener", *listener, "news");
        hear("bystander", *bystander, "news");
        hear("published", *bystander, "aside");
        server->set_uuid("server");
        other_server->set_uuid("other server");
        for (auto* each : {&*server, &*other_server}) register_echo(*each, "echo");
        register_command(*server, "refuse", [](const auto&) { throw std::runtime_error("no"); });
        register_command(*server, "keep", [this](const auto& request) { kept = request; });
    }
    ~application() override { vesk::v1::release_backends(); }
    void TestBody() override {}

    /// Makes `act` the callback of that kind, and has it called.
    void call_from(const std::string& place, const std::function<void()>& act) {
        const auto request = [&](const char* target, const char* command, bool reply_needed) {
            acting_id =
                client->request(target, command, "1", reply_needed, [act](auto, const auto&) { act(); });
        };
        if (place == "command")
            register_command(*server, "act", [this, act](const auto& asked) { kept = asked, act(); });
        settle();
        kept_id = ask("kept", *client, "server", place == "command" ? "act" : "keep");
        settle();
        if (place == "notify")
            listener->subscribe(
                "news", [act](auto) { act(); }, heard("listener"));
        if (place == "handle")
            listener->subscribe("news", nullptr, [act, note = heard("listener")](auto topic, auto data) {
                note(topic, data);
                act();
            });
        if (place == "on_ack") request("server", "echo", false);
        if (place == "on_reply") request("server", "echo", true);
        if (place == "on_nack") request("server", "refuse", true);
        if (place == "on_time_out") request("nobody", "any", true);
        settle();
        hub.relay("news", "first");
        settle();
        advance(15'000);
        settle();
    }

    /// Uses everything once more and says what works, the bus for newcomers included.
    names what_works() {
        if (!subscriber::backend::instance) initialize();
        subscriber new_listener;
        reqrep_server new_server;
        reqrep_client new_client;
        hear("new listener", new_listener, "news");
        new_server.set_uuid("new server");
        register_echo(new_server, "echo");
        settle();
        for (const char* const topic : {"news", "late"}) hub.relay(topic, "second");
        for (const char* const id : {"new server", "server", "other server"}) ask(id, new_client, id, "echo");
        ask("added command", new_client, "server", "added");
        ask("again", new_client, "server", "act");
        if (client) ask("client", *client, "new server", "echo");
        if (kept && !works.contains("kept")) kept->reply("1");
        settle();
        advance(100'000);
        for (const auto& [name, count] : ends) EXPECT_EQ(1, count) << name << " ended more than once";
        return works;
    }

    std::function<void(const std::string&, const std::string&)> heard(const std::string& name) {
        return [this, name](const auto&, const auto& data) {
            if (data != "first") works.insert(name);
        };
    }

    void hear(const std::string& name, subscriber& with, const std::string& topic) {
        with.subscribe(topic, nullptr, heard(name));
    }

    static void register_command(reqrep_server& with, const std::string& command,
                                 const std::function<void(const reqrep_server::request&)>& handler) {
        with.set_command_handler(command, true, nullptr,
                                 [handler](const auto& request, const auto&) { handler(request); });
    }

    static void register_echo(reqrep_server& with, const std::string& command) {
        register_command(with, command, [](const auto& request) { request.reply("1"); });
    }

    unsigned short ask(const std::string& name, reqrep_client& with, const std::string& target,
                       const std::string& command) {
        return with.request(target, command, "1", true, [this, name](const auto* reply, const auto&) {
            ++ends[name];
            if (reply != nullptr) works.insert(name);
        });
    }

    /// Far more turns than anything here takes to come to rest, at one delivery a millisecond.
    void settle() {
        for (int turn = 0; turn < 60; ++turn) {
            hub.forward();
            whatever_is_thrown([&] { loop->poll_once(0); });
            advance(1);
        }
    }

    void advance(long long ms) {
        const auto end = loop->clock.count() + ms;
        do whatever_is_thrown([&] { loop->advance(end - loop->clock.count()); });
        while (loop->clock.count() < end);
    }

    /// What notify callbacks throw, and request callbacks on a time-out, leaves the loop.
    static void whatever_is_thrown(const std::function<void()>& step) {
        try {
            step();
        } catch (const std::runtime_error&) {
        }
    }

    names works;
    std::map<std::string, int> ends;  ///< of requests, by name

    std::optional<subscriber> listener{std::in_place}, bystander{std::in_place};
    std::optional<reqrep_client> client{std::in_place}, other_client{std::in_place};
    std::optional<reqrep_server> server{std::in_place}, other_server{std::in_place};
    std::optional<reqrep_server::request> kept;  ///< in a command handler the request at hand
    unsigned short kept_id = 0;
    unsigned short acting_id = 0;
};

const texts after_initialization = {"-listener", "-bystander", "-server", "-other server", "-kept"};

/// The effects are on what works afterwards: "+NAME" does too, "-NAME" does not.
const std::tuple<const char*, void (*)(application&), texts> actions[] = {
    {"nothing", [](auto&) {}, {}},
    {"subscribe", [](auto& app) { app.hear("late", *app.listener, "late"); }, {"+late"}},
    {"subscribe again", [](auto& app) { app.hear("again", *app.listener, "news"); }, {"+again", "-listener"}},
    {"revoke", [](auto& app) { app.listener->revoke_subscriptions(); }, {"-listener"}},
    {"revoke the server's", [](auto& app) { app.server->revoke_subscriptions(); }, {"-server"}},
    {"revoke another's", [](auto& app) { app.bystander->revoke_subscriptions(); }, {"-bystander"}},
    {"publish", [](auto& app) { app.client->publish("aside", ""); }, {"+published"}},
    {"request", [](auto& app) { app.ask("asked", *app.client, "other server", "echo"); }, {"+asked"}},
    {"cancel",
     [](auto& app) { app.client->cancel_request(app.kept_id), app.client->cancel_request(app.acting_id); },
     {"-kept"}},
    {"cancel all", [](auto& app) { app.client->cancel_all_requests(); }, {"-kept"}},
    {"answer", [](auto& app) { app.kept->reply("1"); }, {"+kept"}},
    {"answer twice", [](auto& app) { app.kept->reply("1"), app.kept->reply("2"); }, {"+kept"}},
    {"register a command", [](auto& app) { app.register_echo(*app.server, "added"); }, {"+added command"}},
    {"register again", [](auto& app) { app.register_echo(*app.server, "act"); }, {"+again"}},
    {"unregister", [](auto& app) { app.server->unset_all_handlers(); }, {"-server", "-kept"}},
    {"destroy the listener", [](auto& app) { app.listener.reset(); }, {"-listener"}},
    {"destroy the client", [](auto& app) { app.client.reset(); }, {"-client", "-kept"}},
    {"destroy the server", [](auto& app) { app.server.reset(); }, {"-server", "-kept"}},
    {"destroy others",
     [](auto& app) { app.bystander.reset(), app.other_client.reset(), app.other_server.reset(); },
     {"-bystander", "-other server"}},
    {"initialize again", [](auto& app) { app.initialize(); }, after_initialization},
    {"release the backends", [](auto&) { vesk::v1::release_backends(); }, after_initialization},
};

class every_call : public testing::TestWithParam<std::string> {};

TEST_P(every_call, may_be_made_from_inside_the_callback) {
    for (const auto& [name, act, effects] : actions)
        for (const bool then_throws : {false, true}) {
            SCOPED_TRACE(std::string(name) + (then_throws ? ", then throw" : ""));
            names expected = {"listener", "bystander",    "client",       "kept",
                              "server",   "other server", "new listener", "new server"};
            if (GetParam() == "command" && then_throws) expected.erase("kept");  // is a NACK
            for (const auto& effect : effects) {
                expected.erase(effect.substr(1));
                if (effect[0] == '+') expected.insert(effect.substr(1));
            }
            application app;
            int entered = 0;
            app.call_from(GetParam(),
                          [&, act = act, captured = std::string("lives until the callback has returned")] {
                              if (++entered > 1) return;
                              act(app);
                              EXPECT_EQ("lives until the callback has returned", captured);
                              if (then_throws) throw std::runtime_error("thrown by the callback");
                          });
            EXPECT_GT(entered, 0);
            EXPECT_EQ(expected, app.what_works());
        }
}

INSTANTIATE_TEST_SUITE_P(from, every_call,
                         testing::Values("notify", "handle", "command", "on_ack", "on_reply", "on_nack",
                                         "on_time_out"),
                         [](const auto& tested) { return tested.param; });

}  // namespace

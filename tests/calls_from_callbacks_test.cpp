// Every call of the bus from inside every kind of callback, once with a callback that returns and once with
// one that throws. What must hold afterwards: the callback's captures have lived until it returned, the call
// has had its effect, everything that it did not touch works, and no request has ended twice.
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tolvan/vesk/hub/connection_impl.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

#include "support/hub_sides.hpp"
#include "support/manual_event_loop.hpp"

namespace {

using namespace tolvan;
using namespace tolvan::test;
using vesk::v1::reqrep_client;
using vesk::v1::reqrep_server;
using vesk::v1::subscriber;

/// The callbacks that the bus calls.
enum class place { notify, handle, command, on_reply, on_nack, on_time_out };

using names = std::set<std::string>;

/// A process with all kinds of bus objects. One of its callbacks acts, once.
struct application {
    application(place given, const std::function<void(application&)>& act, bool then_throws) : tested(given) {
        connect();
        hear("listener", *listener, "news");
        hear("bystander", *bystander, "news");
        hear("published", *bystander, "aside");
        register_echo(*server, "server", "echo");
        register_echo(*other_server, "other server", "echo");
        register_command(*server, "refuse", [](const auto&) { throw std::runtime_error("no"); });
        register_command(*server, "keep", [this](const auto& request) { kept = request; });
        if (tested != place::command) kept_id = ask("kept", *client, "server", "keep");
        settle();
        trigger([this, act, then_throws, captured = std::string("lives until the callback has returned")] {
            if (++entered > 1) return;
            act(*this);
            EXPECT_EQ("lives until the callback has returned", captured);
            if (then_throws) throw std::runtime_error("thrown by the callback");
        });
    }
    application(const application&) = delete;
    application& operator=(const application&) = delete;
    ~application() { vesk::v1::release_backends(); }

    void connect() {
        connection = std::make_unique<vesk::hub::connection_impl>();
        connection->set_event_loop(loop);
        connection->initialize({.pub_endpoint = hub.pub_endpoint(), .sub_endpoint = hub.sub_endpoint()});
        hub.meet_publisher();
    }

    void trigger(const std::function<void()>& act) {
        const auto outcome = [act](const auto*, const auto&) { act(); };
        switch (tested) {
            case place::notify:
                listener->subscribe(
                    "news", [act](const auto&) { act(); }, heard("listener"));
                hub.relay("news", "first");
                break;
            case place::handle:
                listener->subscribe("news", nullptr, [act, note = heard("listener")](auto topic, auto data) {
                    note(topic, data);
                    act();
                });
                hub.relay("news", "first");
                break;
            case place::command:
                register_command(*server, "act", [this, act](const auto& request) {
                    kept = request;
                    act();
                });
                settle();
                kept_id = ask("kept", *client, "server", "act");
                break;
            case place::on_reply:
                acting_id = client->request("server", "echo", "1", true, outcome);
                break;
            case place::on_nack:
                acting_id = client->request("server", "refuse", "1", true, outcome);
                break;
            case place::on_time_out:
                acting_id = client->request("nobody", "any", "1", true, outcome);
                break;
        }
        settle();
        if (tested == place::on_time_out) advance(15'000);
        settle();
    }

    /// Uses everything once more and says what works, the bus for newcomers included.
    names what_works() {
        if (!subscriber::backend::instance) connect();
        subscriber new_listener;
        reqrep_server new_server;
        reqrep_client new_client;
        hear("new listener", new_listener, "news");
        register_echo(new_server, "new server", "echo");
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

    static void register_echo(reqrep_server& with, const std::string& id, const std::string& command) {
        with.set_uuid(id);
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
            try {
                loop->poll_once(0);
            } catch (const std::runtime_error&) {  // what a notify callback throws leaves the loop
            }
            advance(1);
        }
    }

    void advance(long long ms) {
        const auto end = loop->clock + event_loop_v1::milliseconds(ms);
        do {
            try {
                loop->advance(end - loop->clock);
            } catch (const std::runtime_error&) {  // so does what a request callback throws on a time-out
            }
        } while (loop->clock < end);
    }

    const place tested;
    int entered = 0;
    names works;
    std::map<std::string, int> ends;  ///< of requests, by name

    hub_sides hub;
    std::shared_ptr<manual_event_loop> loop = std::make_shared<manual_event_loop>();
    std::unique_ptr<vesk::hub::connection_impl> connection;
    std::optional<subscriber> listener{std::in_place}, bystander{std::in_place};
    std::optional<reqrep_client> client{std::in_place}, other_client{std::in_place};
    std::optional<reqrep_server> server{std::in_place}, other_server{std::in_place};
    std::optional<reqrep_server::request> kept;  ///< for a command handler the request at hand
    unsigned short kept_id = 0;
    unsigned short acting_id = 0;
};

struct action {
    const char* name;
    std::function<void(application&)> act;
    std::function<void(place, names&)> effect;  ///< on what works afterwards
};

bool on_subscription(place tested) {
    return tested == place::notify || tested == place::handle;
}

const action actions[] = {
    {"nothing", [](auto&) {}, [](auto, auto&) {}},
    {"subscribe", [](auto& app) { app.hear("late", *app.listener, "late"); },
     [](auto, auto& works) { works.insert("late"); }},
    {"subscribe to the same topic again",
     [](auto& app) {
         if (app.tested == place::command)
             app.register_command(*app.server, "act", [](const auto& request) { request.reply("1"); });
         else
             app.hear("again", *app.listener, "news");
     },
     [](auto tested, auto& works) {
         works.insert("again");
         if (tested != place::command) works.erase("listener");
     }},
    {"revoke own subscriptions",
     [](auto& app) { (app.tested == place::command ? *app.server : *app.listener).revoke_subscriptions(); },
     [](auto tested, auto& works) { works.erase(tested == place::command ? "server" : "listener"); }},
    {"revoke another's subscriptions", [](auto& app) { app.bystander->revoke_subscriptions(); },
     [](auto, auto& works) { works.erase("bystander"); }},
    {"publish", [](auto& app) { app.client->publish("aside", ""); },
     [](auto, auto& works) { works.insert("published"); }},
    {"request", [](auto& app) { app.ask("requested", *app.client, "other server", "echo"); },
     [](auto, auto& works) { works.insert("requested"); }},
    {"cancel the request at hand",
     [](auto& app) {
         app.client->cancel_request(app.kept_id);
         app.client->cancel_request(app.acting_id);
     },
     [](auto, auto& works) { works.erase("kept"); }},
    {"cancel all requests", [](auto& app) { app.client->cancel_all_requests(); },
     [](auto, auto& works) { works.erase("kept"); }},
    {"answer", [](auto& app) { app.kept->reply("1"); }, [](auto, auto& works) { works.insert("kept"); }},
    {"answer twice",
     [](auto& app) {
         app.kept->reply("1");
         app.kept->fail(std::runtime_error("no"));
     },
     [](auto, auto& works) { works.insert("kept"); }},
    {"register a command",
     [](auto& app) {
         app.register_command(*app.server, "added", [](const auto& request) { request.reply("1"); });
     },
     [](auto, auto& works) { works.insert("added command"); }},
    {"unregister the server", [](auto& app) { app.server->unset_all_handlers(); },
     [](auto, auto& works) {
         for (const char* const gone : {"server", "kept"}) works.erase(gone);
     }},
    {"destroy own object",
     [](auto& app) {
         if (on_subscription(app.tested))
             app.listener.reset();
         else if (app.tested == place::command)
             app.server.reset();
         else
             app.client.reset();
     },
     [](auto tested, auto& works) {
         works.erase(on_subscription(tested) ? "listener" : tested == place::command ? "server" : "client");
         if (!on_subscription(tested)) works.erase("kept");
     }},
    {"destroy others",
     [](auto& app) {
         app.bystander.reset();
         app.other_client.reset();
         app.other_server.reset();
     },
     [](auto, auto& works) {
         for (const char* const gone : {"bystander", "other server"}) works.erase(gone);
     }},
    {"initialize again", [](auto& app) { app.connect(); },
     [](auto, auto& works) {
         works = {"client", "new listener", "new server"};
     }},
    {"drop the connection", [](auto& app) { app.connection.reset(); }, [](auto, auto&) {}},
    {"release the backends", [](auto&) { vesk::v1::release_backends(); },
     [](auto, auto& works) {
         works = {"client", "new listener", "new server"};
     }},
};

class every_call : public testing::TestWithParam<place> {};

TEST_P(every_call, may_be_made_from_inside_the_callback) {
    for (const auto& [name, act, effect] : actions)
        for (const bool then_throws : {false, true}) {
            SCOPED_TRACE(std::string(name) + (then_throws ? ", then throw" : ""));
            names expected = {"listener", "bystander",    "client",       "kept",
                              "server",   "other server", "new listener", "new server"};
            if (GetParam() == place::command && then_throws) expected.erase("kept");  // is a NACK
            effect(GetParam(), expected);
            application app(GetParam(), act, then_throws);
            EXPECT_GT(app.entered, 0);
            EXPECT_EQ(expected, app.what_works());
        }
}

std::string name_of(const testing::TestParamInfo<place>& tested) {
    const char* const all[] = {"notify", "handle", "command", "on_reply", "on_nack", "on_time_out"};
    return all[static_cast<int>(tested.param)];
}

INSTANTIATE_TEST_SUITE_P(from, every_call,
                         testing::Values(place::notify, place::handle, place::command, place::on_reply,
                                         place::on_nack, place::on_time_out),
                         name_of);

}  // namespace

#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tolvan/vesk/hub/subscriber_impl.hpp>

#include "support/captured_log.hpp"
#include "support/hub_sides.hpp"
#include "support/manual_event_loop.hpp"

namespace {

using namespace tolvan;
using test::frames;
using vesk::hub::subscriber_impl;
using vesk::v1::subscriber;
using texts = std::vector<std::string>;

const std::string log_of = " src/hub/subscriber_impl ";

class subscriber_backend : public testing::Test {
  protected:
    subscriber_backend() { install(); }
    ~subscriber_backend() override { subscriber::backend::instance.reset(); }

    void install() {
        subscriber::backend::instance = std::make_shared<subscriber_impl>(loop, hub.sub_endpoint());
    }

    // Subscribes; every call of a callback is noted as "NAME notify TOPIC" or "NAME TOPIC=DATA".
    void note(subscriber& by, const std::string& topic, const std::string& name) {
        by.subscribe(
            topic, [this, name](const auto& received) { calls.push_back(name + " notify " + received); },
            [this, name](const auto& received, const auto& data) {
                calls.push_back(name + " " + received + "=" + data);
            });
    }

    // Waits until the hub knows every subscription made so far.
    void settle() {
        subscriber last;
        last.subscribe("settled", nullptr, nullptr);
        while (hub.filter() != hub.set("settled")) {
        }
        last.revoke_subscriptions();
        EXPECT_EQ(hub.removed("settled"), hub.filter());
    }

    // Relays messages, then reads until the last of them has been received. A sentinel tells.
    void receive(const std::vector<frames>& messages) {
        subscriber sentinel;
        bool received = false;
        sentinel.subscribe(
            "sentinel", [&](const auto&) { received = true; }, nullptr);
        settle();
        for (const auto& message : messages) hub.relay(message);
        hub.relay("sentinel", "");
        loop->run_until([&] { return received; });
    }

    static frames message(const std::string& topic, const std::string& data) {
        return {topic, data, test::hub_sides::metadata(0)};
    }

    // Makes all deliveries that wait.
    void dispatch() { loop->advance(1000); }

    test::hub_sides hub;
    std::shared_ptr<test::manual_event_loop> loop = std::make_shared<test::manual_event_loop>();
    texts calls;
};

TEST_F(subscriber_backend, matches_whole_segments_of_a_topic_in_ascending_order) {
    subscriber one;
    for (const char* const topic : {"", "a", "a.", "a.b", "a.b.c", "a.bc", "b"}) note(one, topic, topic);
    struct row {
        std::string received;
        texts matched;
    };
    for (const auto& [received, matched] : {
             row{"a.b", {"", "a", "a.b"}},
             row{"a.bc", {"", "a", "a.bc"}},
             row{"a.b.c.d", {"", "a", "a.b", "a.b.c"}},
             row{"a..b", {"", "a", "a."}},
             row{"a.", {"", "a", "a."}},
             row{"ab", {""}},
             row{"", {""}},
             row{".", {""}},
         }) {
        calls.clear();
        receive({message(received, "x")});
        texts expected;
        for (const auto& topic : matched) expected.push_back(topic + " notify " + received);
        for (const auto& topic : matched) expected.push_back(topic + " " + received + "=x");
        dispatch();
        std::erase_if(calls, [](const auto& call) { return call.find("sentinel") != std::string::npos; });
        EXPECT_EQ(expected, calls) << received;
    }
}

TEST_F(subscriber_backend, sets_a_filter_for_the_first_subscription_and_removes_it_with_the_last) {
    const test::captured_log log;
    subscriber one, two;
    note(one, "b", "one");
    note(one, "a", "one");
    note(two, "a", "two");
    EXPECT_EQ(hub.set("b"), hub.filter());
    EXPECT_EQ(hub.set("a"), hub.filter());
    two.revoke_subscriptions();
    one.revoke_subscriptions();
    EXPECT_EQ(hub.removed("a"), hub.filter()) << "ascending, and only once nobody wants it any more";
    EXPECT_EQ(hub.removed("b"), hub.filter());
    EXPECT_EQ((texts{"3" + log_of + "subscribe: subscribing to topic=“b”",
                     "3" + log_of + "subscribe: subscribing to topic=“a”",
                     "3" + log_of + "revoke_subscriptions: unsubscribing to topic=a",
                     "3" + log_of + "revoke_subscriptions: unsubscribing to topic=b"}),
              log.lines);
    two.revoke_subscriptions();
    EXPECT_EQ(4U, log.lines.size());
}

TEST_F(subscriber_backend, replaces_the_callbacks_of_a_duplicate_and_counts_it) {
    subscriber one;
    one.set_uuid("its-id");
    note(one, "x", "old");
    receive({message("x", "1")});
    const test::captured_log log;
    note(one, "x", "new");
    EXPECT_EQ(
        (texts{"1" + log_of +
               "subscribe: duplicate subscription by id=its-id for topic=x detected, please fix your code"}),
        log.lines);
    dispatch();
    EXPECT_EQ((texts{"old notify x", "new x=1"}), calls) << "what is queued goes to the current callback";
    one.revoke_subscriptions();
    EXPECT_EQ(1U, log.lines.size()) << "the second count keeps the filter";
}

TEST_F(subscriber_backend, notifies_at_receipt_and_delivers_one_message_a_millisecond) {
    subscriber one;
    note(one, "x", "one");
    receive({message("x", "1"), message("x", "2"), message("x", "3")});
    EXPECT_EQ((texts{"one notify x", "one notify x", "one notify x"}), calls);
    const auto dispatch_timers = [&] {
        return std::count(loop->made_timers.begin(), loop->made_timers.end(),
                          std::pair<std::string, long long>("vesk::subscriber_impl.dispatch_queue", 1));
    };
    EXPECT_EQ(1, dispatch_timers()) << "a new one for each message would put deliveries off for ever";
    for (const char* const data : {"1", "2", "3"}) {
        calls.clear();
        loop->advance(1);
        EXPECT_EQ((texts{std::string("one x=") + data}), calls);
    }
    EXPECT_EQ(3, dispatch_timers());
}

TEST_F(subscriber_backend, survives_any_message_and_delivers_the_next_good_one) {
    const std::string stamp = test::hub_sides::metadata(0);
    const std::string big(1 << 20, 'b');
    const std::string dropped =
        "0" + log_of + "subscription_handler: Failed to receive 0MQ message off of socket; dropping";
    const auto version = [](const char* number) {
        return "0" + log_of + "subscription_handler: unsupported metadata version=" + number;
    };
    struct row {
        frames message;
        std::string delivered;  // TOPIC=DATA, empty for nothing
        std::string logged;
    };
    const std::vector<row> rows = {
        {{"x"}, "", dropped},
        {{"x", "d"}, "x=d", ""},
        {{"x", "d", stamp, "4", "5", "6", "7", "8", "9", "10"}, "x=d", ""},
        {{"x", "d", ""}, "x=d", version("0")},
        {{"x", "d", std::string("\1\0", 2)}, "x=d", ""},
        {{"x", "d", stamp.substr(0, 15)}, "x=d", ""},
        {{"x", "d", stamp + "!"}, "x=d", ""},
        {{"x", "d", "\x02" + stamp.substr(1)}, "x=d", version("2")},
        {{"x", "d", "\xff"}, "x=d", version("255")},
        {{std::string("x\0y", 3), std::string("d\0e", 3), stamp}, "x=d", ""},
        {{"", "", stamp}, "=", ""},
        {{big, big, stamp}, big + "=" + big, ""},
        {message("x", "\n%s\xff"), "x=\n%s\xff", ""},
    };
    subscriber one;
    note(one, "", "all");
    for (const auto& [sent, delivered, logged] : rows) {
        calls.clear();
        const test::captured_log log(lumo::v1::error);
        receive({sent, message("x", "good")});
        dispatch();
        EXPECT_EQ(1, std::count(calls.begin(), calls.end(), "all x=good"));
        EXPECT_EQ(delivered.empty() ? 0 : 1, std::count(calls.begin(), calls.end(), "all " + delivered));
        EXPECT_EQ(logged.empty() ? texts{} : texts{logged}, log.lines);
    }
}

TEST_F(subscriber_backend, reports_latency_at_most_once_an_hour_of_loop_time) {
    const test::captured_log log(lumo::v1::statistics);
    const auto stamped = [this](std::int64_t latency) {
        return frames{"x", "", test::hub_sides::metadata(loop->clock.count() - latency)};
    };
    const auto report = [](const char* text) {
        return "2" + log_of + "subscription_handler: vesk stats: latency " + text;
    };
    subscriber one;
    note(one, "x", "one");
    settle();
    const auto receive_stamped = [&](std::int64_t latency) {
        const auto before = calls.size();
        hub.relay(stamped(latency));
        loop->run_until([&] { return calls.size() > before; });
    };
    receive_stamped(7);
    EXPECT_EQ((texts{report("count=1 avg=7ms")}), log.lines);
    receive_stamped(-5);
    loop->clock += std::chrono::hours(1);
    receive_stamped(-2);
    EXPECT_EQ(1U, log.lines.size()) << "exactly an hour is not more than an hour";
    loop->clock += std::chrono::milliseconds(1);
    receive_stamped(0);
    EXPECT_EQ(report("count=3 avg=-2ms"), log.lines.back());
    hub.relay("x", "", std::numeric_limits<std::int64_t>::min());
    receive_stamped(std::numeric_limits<std::int64_t>::max());
}

TEST_F(subscriber_backend, is_not_deaf_after_a_notify_callback_has_thrown) {
    subscriber one;
    int notified = 0;
    one.subscribe(
        "x",
        [&](const auto&) {
            if (++notified <= 2) throw std::runtime_error("from notify");
        },
        [&](const auto&, const auto& data) { calls.push_back(data); });
    settle();
    for (const char* const data : {"1", "2", "3", "4"}) hub.relay("x", data);
    EXPECT_THROW(loop->run_until([&] { return notified > 0; }), std::runtime_error);
    EXPECT_THROW(loop->advance(0), std::runtime_error) << "the rest is read without new traffic";
    loop->advance(0);
    EXPECT_EQ(4, notified);
    dispatch();
    EXPECT_EQ((texts{"3", "4"}), calls);
}

TEST_F(subscriber_backend, logs_what_a_handle_callback_throws_and_goes_on) {
    subscriber one, two, three, four;
    one.subscribe("x", nullptr, [](const auto&, const auto&) { throw std::runtime_error("its text"); });
    two.subscribe("x", nullptr, [](const auto&, const auto&) { throw 1; });
    three.subscribe("x", nullptr, nullptr);
    note(four, "x", "four");
    receive({message("x", "1")});
    const test::captured_log log(lumo::v1::error);
    dispatch();
    const std::string prefix = "0" + log_of + "dispatch_one_message: exception caught";
    EXPECT_EQ(1, log.count(prefix + ": its text"));
    EXPECT_EQ(1, log.count(prefix + " (no more info available)"));
    EXPECT_EQ(1, log.count(prefix + ": bad_function_call"));
    EXPECT_EQ("four x=1", calls.back());
}

TEST_F(subscriber_backend, calls_the_very_callable_that_it_was_given_every_time) {
    subscriber one;
    int last = 0;
    one.subscribe(
        "x", [&last, count = 0](const auto&) mutable { last = ++count; }, [](const auto&, const auto&) {});
    receive({message("x", "1"), message("x", "2"), message("x", "3")});
    EXPECT_EQ(3, last);
}

TEST_F(subscriber_backend, drops_what_is_queued_for_a_revoked_subscriber_and_keeps_the_rest_in_order) {
    subscriber one, two;
    note(one, "x", "one");
    note(two, "x", "two");
    receive({message("x", "1"), message("x", "2")});
    calls.clear();
    one.revoke_subscriptions();
    dispatch();
    EXPECT_EQ((texts{"two x=1", "two x=2"}), calls);
}

TEST_F(subscriber_backend, finds_the_few_wanted_topics_of_a_megabyte_of_dots) {
    subscriber one;
    note(one, "...", "one");
    receive({message(std::string(1 << 20, '.'), "x")});
    EXPECT_EQ(1U, calls.size());
}

TEST_F(subscriber_backend, drops_deliveries_and_ends_its_watch_when_it_is_destroyed) {
    subscriber one;
    note(one, "x", "one");
    receive({message("x", "1")});
    calls.clear();
    subscriber::backend::instance.reset();
    dispatch();
    loop->poll_once(0);
    EXPECT_TRUE(calls.empty());
}

// What becomes of the very message whose callback changes the subscriptions.
class a_callback : public subscriber_backend {
  protected:
    std::optional<subscriber> acting{std::in_place};
    std::optional<subscriber> other{std::in_place};
    bool acted = false;

    void run(const std::function<void()>& act, bool from_notify) {
        const auto once = [this, act] {
            if (!std::exchange(acted, true)) act();
        };
        const auto noted = [this](const auto&, const auto& data) { calls.push_back("acting " + data); };
        if (from_notify)
            acting->subscribe(
                "x", [once](const auto&) { once(); }, noted);
        else
            acting->subscribe("x", nullptr, [once, noted](const auto& topic, const auto& data) {
                once();
                noted(topic, data);
            });
        other->subscribe("x.y", nullptr,
                         [this](const auto&, const auto& data) { calls.push_back("other " + data); });
        settle();
        hub.relay("x.y", "1");
        hub.relay("x.y", "2");
        loop->run_until([&] { return loop->advance(1), acted; });
        for (int turn = 0; turn < 5; ++turn) loop->poll_once(1), loop->advance(10);
    }

    auto count(const std::string& call) const { return std::count(calls.begin(), calls.end(), call); }
};

TEST_F(a_callback, may_subscribe_to_many_topics_and_again_to_its_own) {
    for (const bool from_notify : {true, false}) {
        calls.clear(), acted = false;
        run(
            [&] {
                for (int i = 0; i < 1000; ++i) note(*acting, "many." + std::to_string(i), "many");
                note(*acting, "x", "renewed");
            },
            from_notify);
        EXPECT_EQ(from_notify ? 1 : 0, count("renewed x.y=1"))
            << "a queued message goes to the current callback";
        EXPECT_EQ(1, count("renewed x.y=2"));
        EXPECT_EQ(1, count("other 1"));
        EXPECT_EQ(1, count("other 2"));
    }
}

TEST_F(a_callback, that_revokes_and_subscribes_anew_does_not_get_the_current_message) {
    run(
        [&] {
            acting->revoke_subscriptions();
            note(*acting, "x", "anew");
        },
        true);
    EXPECT_EQ(0, count("anew x.y=1"));
    EXPECT_EQ(1, count("anew x.y=2"));
}

TEST_F(a_callback, whose_captures_call_the_bus_when_they_are_destroyed_finds_consistent_tables) {
    struct calls_the_bus {
        explicit calls_the_bus(subscriber& given) : called(given) {}
        subscriber& called;
        ~calls_the_bus() {
            if (!subscriber::backend::instance) return;
            called.subscribe("from.destructor", nullptr, nullptr);
            called.revoke_subscriptions();
        }
    };
    const auto captured = std::make_shared<calls_the_bus>(*other);
    acting->subscribe(
        "x", [held = captured](const auto&) {}, nullptr);
    acting->subscribe(
        "y", [held = std::make_shared<calls_the_bus>(*acting)](const auto&) {}, nullptr);
    note(*acting, "y", "again");
    acting->revoke_subscriptions();
    EXPECT_EQ(1, captured.use_count());
}

}  // namespace

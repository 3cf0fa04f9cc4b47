#include <limits>

#include <gmock/gmock.h>

#include "support/allocations.hpp"
#include "support/whole_bus.hpp"

namespace {

using namespace tolvan;
using namespace test;
using vesk::v1::subscriber;

const std::string log_of = " src/hub/subscriber_impl ";

class subscriber_backend : public whole_bus {
  protected:
    // Subscribes; every call of a callback is noted as "NAME notify TOPIC" or "NAME TOPIC=DATA".
    void note(subscriber& by, const std::string& topic, const std::string& name) {
        const auto add = [this, name](const std::string& call) { calls.push_back(name + " " + call); };
        by.subscribe(
            topic, [add](const auto& received) { add("notify " + received); },
            [add](const auto& received, const auto& data) { add(received + "=" + data); });
    }

    static frames message(const std::string& topic, const std::string& data) {
        return {topic, data, hub_sides::metadata(0)};
    }

    // Makes all deliveries that wait.
    void dispatch() { loop->advance(1000); }

    texts calls;
};

TEST_F(subscriber_backend, matches_whole_segments_of_a_topic_in_ascending_order) {
    subscriber one;
    for (const char* const topic : {"", "a", "a.", "a.b", "a.b.c", "a.bc", "b"}) note(one, topic, topic);
    const std::pair<std::string, texts> rows[] = {
        {"a.b", {"", "a", "a.b"}},
        {"a.bc", {"", "a", "a.bc"}},
        {"a.b.c.d", {"", "a", "a.b", "a.b.c"}},
        {"a..b", {"", "a", "a."}},
        {"ab", {""}},
        {"", {""}},
        {".", {""}},
    };
    for (const auto& [received, matched] : rows) {
        calls.clear();
        receive({message(received, "x")});
        dispatch();
        texts expected;
        for (const auto& topic : matched) expected.push_back(topic + " notify " + received);
        expected.push_back(" notify sentinel");
        for (const auto& topic : matched) expected.push_back(topic + " " + received + "=x");
        expected.push_back(" sentinel=");
        EXPECT_EQ(expected, calls) << received;
    }
}

TEST_F(subscriber_backend, keeps_one_filter_for_a_topic_until_nobody_wants_it) {
    texts destroyed;
    const auto last_words = [&](const char* name) {
        return std::shared_ptr<const char>(name, [&](const char* gone) { destroyed.emplace_back(gone); });
    };
    subscriber one, two;
    one.set_uuid("its-id");
    one.subscribe(
        "x", [held = last_words("notify")](auto) {}, [held = last_words("handle")](auto, auto) {});
    note(two, "x", "two");
    note(two, "w", "two");
    note(one, "y", "one");
    for (const char* const topic : {"x", "w", "y"}) EXPECT_EQ(hub.set(topic), hub.filter());
    receive({message("x", "1")});
    calls.clear(), logged();
    note(one, "x", "again");
    EXPECT_EQ(
        texts{"1" + log_of +
              "subscribe: duplicate subscription by id=its-id for topic=x detected, please fix your code"},
        logged());
    EXPECT_EQ((texts{"notify", "handle"}), destroyed);
    one.revoke_subscriptions();
    EXPECT_EQ(hub.removed("y"), hub.filter()) << "somebody else wants x";
    receive({message("w", "2"), message("x", "3")});
    dispatch();
    EXPECT_EQ((texts{"two notify w", "two notify x", "two x=1", "two w=2", "two x=3"}), calls);
    two.revoke_subscriptions();
    EXPECT_EQ(hub.removed("w"), hub.filter());
    note(two, "z", "two");
    EXPECT_EQ(hub.set("z"), hub.filter()) << "the duplicate was counted, and keeps the filter of x";
}

TEST_F(subscriber_backend, finds_whoever_has_a_topic_as_subscribers_come_and_go) {
    subscriber one, two, three;
    const auto expect_notified = [this](const texts& names) {
        for (int again = 0; again < 2; ++again) {  // whom the first message has found is known to the second
            calls.clear();
            receive({message("a.b", "")});
            EXPECT_THAT(calls, testing::UnorderedElementsAreArray(names));
        }
        dispatch();
    };
    note(one, "a", "one");
    note(one, "a.b", "one");
    expect_notified({"one notify a.b", "one notify a.b"});
    note(two, "a", "two");
    expect_notified({"one notify a.b", "one notify a.b", "two notify a.b"});
    one.revoke_subscriptions();
    expect_notified({"two notify a.b"});
    note(three, "a.b", "three");
    note(three, "a.b", "three");
    expect_notified({"two notify a.b", "three notify a.b"});
    three.revoke_subscriptions();
    two.revoke_subscriptions();
    expect_notified({});
    note(three, "a.b", "anew");
    expect_notified({"anew notify a.b"});
}

TEST_F(subscriber_backend, notifies_subscribers_in_one_order_whatever_they_have) {
    subscriber one, two;
    for (const char* const topic : {"both", "p", "q.r"}) note(one, topic, "one");
    for (const char* const topic : {"both", "p.s", "q"}) note(two, topic, "two");
    receive({message("both", ""), message("p.s", ""), message("q.r", "")});
    dispatch();
    const std::string first = calls.at(0).substr(0, 3), second = calls.at(1).substr(0, 3);
    texts order;
    for (const auto& call : calls) order.push_back(call.substr(0, 3));
    EXPECT_EQ((texts{first, second, first, second, first, second}), texts(order.begin(), order.begin() + 6));
}

TEST_F(subscriber_backend, needs_no_memory_for_a_delivery_but_after_a_burst) {
    subscriber one;
    one.subscribe("x", nullptr, [](const auto&, const auto&) {});
    const auto allocations_of = [this](std::size_t count) {
        const std::vector<frames> messages(count, message("x", ""));
        const auto before = allocations;
        receive(messages);
        const auto spent = allocations - before;
        dispatch();
        return spent;
    };
    const auto small = allocations_of(100), large = allocations_of(300);
    EXPECT_LE(allocations_of(100), small - 100) << "the queue uses its memory again";
    EXPECT_GT(allocations_of(300), large - 200) << "but keeps little of it";
}

TEST_F(subscriber_backend, notifies_at_receipt_and_delivers_one_message_a_millisecond) {
    subscriber one;
    note(one, "x", "one");
    receive({message("x", "1"), message("x", "2"), message("x", "3")});
    EXPECT_EQ((texts{"one notify x", "one notify x", "one notify x"}), calls);
    auto timers = loop->made_timers;
    EXPECT_THAT(timers, testing::ElementsAre(testing::Pair("vesk::subscriber_impl.dispatch_queue", 1)))
        << "a new one for each message would put deliveries off for ever";
    for (const char* const data : {"1", "2", "3"}) {
        calls.clear();
        loop->advance(1);
        EXPECT_EQ((texts{std::string("one x=") + data}), calls);
    }
    timers.resize(3, timers[0]);
    EXPECT_EQ(timers, loop->made_timers);
}

TEST_F(subscriber_backend, survives_any_message_and_delivers_the_next_good_one) {
    const std::string stamp = hub_sides::metadata(0), big(1 << 20, 'b');
    const std::string handler = "0" + log_of + "subscription_handler: ";
    const std::string dropped = handler + "Failed to receive 0MQ message off of socket; dropping";
    const std::string unsupported = handler + "unsupported metadata version=";
    // Message; what of it is delivered, TOPIC=DATA; what is logged.
    const std::tuple<frames, std::string, texts> rows[] = {
        {{"x"}, "", {dropped}},
        {{"x", "d"}, "x=d", {}},
        {{"x", "d", stamp, "4", "5", "6", "7", "8", "9", "10"}, "x=d", {}},
        {{"x", "d", ""}, "x=d", {unsupported + "0"}},
        {{"x", "d", stamp + "!"}, "x=d", {}},
        {{"x", "d", "\xff"}, "x=d", {unsupported + "255"}},
        {{std::string("x\0y", 3), std::string("d\0e", 3), stamp}, "x=d", {}},
        {{"", "", stamp}, "=", {}},
        {{big, big, stamp}, big + "=" + big, {}},
        {message("x", "\n%s\xff"), "x=\n%s\xff", {}},
    };
    subscriber one;
    note(one, "", "all");
    for (const auto& [sent, delivered, lines] : rows) {
        calls.clear(), logged();
        receive({sent, message("x", "good")});
        dispatch();
        EXPECT_EQ(1, std::count(calls.begin(), calls.end(), "all x=good"));
        EXPECT_EQ(delivered.empty() ? 0 : 1, std::count(calls.begin(), calls.end(), "all " + delivered));
        EXPECT_EQ(lines, logged('0'));
    }
}

TEST_F(subscriber_backend, reports_latency_at_most_once_an_hour_of_loop_time) {
    loop->clock += std::chrono::hours(2);
    const std::string report = "2" + log_of + "subscription_handler: vesk stats: latency ";
    subscriber one;
    note(one, "x", "one");
    const auto receive_stamp = [&](const std::string& stamp) { receive({{"x", "", stamp}}); };
    const auto stamp = [this](std::int64_t latency) {
        return hub_sides::metadata(loop->clock.count() - latency);
    };
    receive_stamp(stamp(7));
    EXPECT_EQ(texts{report + "count=1 avg=7ms"}, logged('2'));
    receive_stamp(stamp(-5));
    receive_stamp("\x02" + stamp(1'000'000).substr(1));
    receive_stamp(stamp(1'000'000).substr(0, 15));
    loop->clock += std::chrono::hours(1);
    receive_stamp(stamp(-2));
    EXPECT_EQ(1U, logged('2').size()) << "exactly an hour is not more than an hour";
    loop->clock += std::chrono::milliseconds(1);
    receive_stamp(stamp(0));
    EXPECT_EQ(texts{report + "count=3 avg=-2ms"}, logged('2')) << "not of another version, nor cut";
    for (const auto limit :
         {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()})
        receive_stamp(hub_sides::metadata(limit));
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
    dispatch();
    EXPECT_EQ((texts{"3", "4"}), calls);

    notified = 0;
    loop->refuse_timers = true;
    for (const char* const data : {"5", "6", "7"}) hub.relay("x", data);
    EXPECT_THROW(loop->run_until([&] { return notified > 0; }), std::runtime_error);
    EXPECT_EQ(3, notified) << "without a timer it is read at once";
}

TEST_F(subscriber_backend, makes_a_subscription_or_none_whatever_allocation_fails) {
    const auto subscribe_failing = [this] {
        subscriber one;
        note(one, "a.bc", "failed");
    };
    fail_each_allocation(subscribe_failing, [this] {
        calls.clear();
        subscriber one;
        note(one, "a.bc", "one");
        receive({message("a.bc", "1")});
        dispatch();
        EXPECT_EQ((texts{"one notify a.bc", "one a.bc=1"}), calls);
        one.revoke_subscriptions();
        EXPECT_EQ(hub.removed("a.bc"), hub.filter()) << "no earlier one has left the filter behind";
    });
}

TEST_F(subscriber_backend, logs_what_a_handle_callback_throws_and_goes_on) {
    subscriber one, two, three, four;
    one.subscribe("x", nullptr, [](const auto&, const auto&) { throw std::runtime_error("its text"); });
    two.subscribe("x", nullptr, [](const auto&, const auto&) { throw 1; });
    three.subscribe("x", nullptr, nullptr);
    note(four, "x", "four");
    receive({message("x", "1")});
    logged();
    dispatch();
    const std::string prefix = "0" + log_of + "dispatch_one_message: exception caught";
    EXPECT_THAT(logged('0'),
                testing::UnorderedElementsAre(prefix + ": its text", prefix + " (no more info available)",
                                              prefix + ": bad_function_call"));
    EXPECT_EQ("four x=1", calls.back());
}

TEST_F(subscriber_backend, decodes_data_to_what_the_callback_takes) {
    subscriber one;
    one.subscribe("x", nullptr, [&](const std::string& topic, const std::map<std::string, int>& decoded) {
        calls.push_back(topic + " a=" + std::to_string(decoded.at("a")));
    });
    receive({message("x", R"({"a":1})"), message("x", R"({"a":"1"})"), message("x.y", R"({"a":2})")});
    dispatch();
    EXPECT_EQ((texts{"x a=1", "x.y a=2"}), calls);
}

TEST_F(subscriber_backend, drops_what_is_queued_for_a_revoked_subscriber_and_keeps_the_rest_in_order) {
    const std::string large(1 << 20, 'l');  // memory of its own, which is gone once it is freed
    subscriber one, two, three;
    note(one, "x", "one");
    note(two, "x", "two");
    three.subscribe("y", nullptr, [&](const auto& topic, const auto& data) {
        three.revoke_subscriptions();
        calls.push_back("three " + topic.substr(0, 1) + (data == large ? "=large" : "=changed"));
    });
    receive({message("y." + large, large), message("x", "1"), message("x", "2")});
    calls.clear();
    one.revoke_subscriptions();
    dispatch();
    EXPECT_EQ((texts{"three y=large", "two x=1", "two x=2"}), calls);
}

TEST_F(subscriber_backend, does_not_notify_of_the_current_message_what_its_callback_has_subscribed_anew) {
    subscriber one;
    one.subscribe(
        "x", [&](const auto&) { one.revoke_subscriptions(), note(one, "x", "anew"); }, nullptr);
    receive({message("x", "1"), message("x", "2")});
    dispatch();
    EXPECT_EQ((texts{"anew notify x", "anew x=2"}), calls);
}

TEST_F(subscriber_backend, goes_on_with_a_message_whose_callback_has_revoked_another_subscriber) {
    subscriber one, two, another;
    one.subscribe(
        "x", [&](const auto&) { another.revoke_subscriptions(); }, nullptr);
    note(one, "x.y", "one");
    const texts of_one{"one notify x.y", "one x.y=1"},
        of_both{"one notify x.y", "one x.y=1", "two notify x.y", "two x.y=1"};
    for (const auto& expected : {of_one, of_both}) {
        calls.clear();
        note(another, "z", "another");
        receive({message("x.y", "1")});
        dispatch();
        std::sort(calls.begin(), calls.end());
        EXPECT_EQ(expected, calls);
        note(two, "x.y", "two");
    }
}

// A loop may take a turn while a callback runs, and a new delivery may lie where the running one lay.
TEST_F(subscriber_backend, keeps_what_comes_in_while_a_callback_that_has_revoked_is_running) {
    subscriber one, two;
    note(two, "y", "two");
    one.subscribe("x", nullptr, [&](const auto&, const auto&) {
        one.revoke_subscriptions();
        one.subscribe("z", nullptr, nullptr);
        loop->run_until([&] { return std::count(calls.begin(), calls.end(), "two notify y") > 0; });
    });
    receive({message("x", "1")});
    hub.relay("y", "2");
    dispatch();
    EXPECT_EQ((texts{"two notify y", "two y=2"}), calls);
}

}  // namespace

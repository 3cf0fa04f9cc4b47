#include <optional>

#include <gmock/gmock.h>

#include <tolvan/vesk/toolkit/hub_presence.hpp>

#include "support/whole_bus.hpp"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using tolvan::test::texts;
using tolvan::vesk::toolkit::hub_presence;

const auto probe = testing::StartsWith("vesk.probe.");

class presence : public tolvan::test::whole_bus {
  protected:
    std::function<void()> say(const std::string& text) {
        return [this, text] { said.push_back(text); };
    }

    void make(hub_presence::options chosen = {}) {
        known.emplace(loop, hub_presence::callbacks{say("ready"), say("lost"), say("back")}, chosen);
    }

    void make_ready(hub_presence::options chosen = {}) {
        make(chosen);
        loop->advance(0);
        relay();
        relay();
        ASSERT_THAT(now_said(), ElementsAre("ready"));
    }

    // Passes on what was published. Returns the filters that were set since the last time.
    texts relay() {
        texts filters;
        tolvan::vesk::v1::subscriber last;
        last.subscribe("settled", nullptr, nullptr);
        for (auto next = hub.filter(); next != hub.set("settled"); next = hub.filter())
            if (next.front() == '\1') filters.push_back(next.substr(1));
        last.revoke_subscriptions();
        hub.await_filter(hub.removed("settled"));
        hub.forward();
        loop->poll_once(20);
        return filters;
    }

    texts now_said() { return std::exchange(said, {}); }

    std::vector<long long> delays() const {
        std::vector<long long> found;
        for (const auto& [name, delay] : loop->made_timers)
            if (name == "hub presence") found.push_back(delay);
        return found;
    }

    std::optional<hub_presence> known;
    texts said;
};

TEST_F(presence, is_ready_when_a_probe_is_back_that_the_hub_learned_of_after_all_other_subscriptions) {
    tolvan::vesk::v1::subscriber subscriber;
    make();
    subscriber.subscribe("made in the same turn", nullptr, nullptr);
    loop->advance(0);
    EXPECT_THAT(relay(), ElementsAre("made in the same turn", probe));
    EXPECT_THAT(now_said(), IsEmpty());
    EXPECT_FALSE(known->is_there());
    EXPECT_THAT(relay(), ElementsAre(probe));
    EXPECT_THAT(now_said(), ElementsAre("ready"));
    EXPECT_TRUE(known->is_there());
}

TEST_F(presence, asks_at_growing_intervals_while_there_is_no_hub) {
    make();
    loop->advance(100'000);
    const auto asked = delays();
    EXPECT_EQ((std::vector<long long>{0, 1, 1, 2, 4, 8, 16, 20}),
              std::vector(asked.begin(), asked.begin() + 8));
    EXPECT_EQ(1000, asked.back());
    EXPECT_LT(asked.size(), 400U);
}

TEST_F(presence, sends_one_probe_an_interval_and_tells_when_the_hub_is_lost_and_back) {
    make_ready();
    for (int turn = 0; turn < 3; ++turn) {
        const auto before = delays().size();
        loop->advance(2000);
        relay();
        EXPECT_EQ(before + 2, delays().size());
    }
    loop->advance(3900);
    EXPECT_THAT(now_said(), IsEmpty());
    loop->advance(500);
    EXPECT_THAT(now_said(), ElementsAre("lost"));
    EXPECT_FALSE(known->is_there());
    relay();
    EXPECT_THAT(now_said(), IsEmpty());
    relay();
    EXPECT_THAT(now_said(), ElementsAre("back"));
}

TEST_F(presence, does_not_take_its_own_process_that_was_busy_for_a_hub_that_is_lost) {
    make_ready();
    for (int turn = 0; turn < 5; ++turn) {
        loop->clock += 10s;
        loop->advance(0);
    }
    relay();
    loop->advance(1000);
    EXPECT_THAT(now_said(), IsEmpty());
    EXPECT_TRUE(known->is_there());
}

TEST_F(presence, without_an_interval_asks_no_more_once_the_hub_is_ready) {
    make_ready({.probe_interval = 0ms});
    const auto made = delays().size();
    loop->advance(100'000);
    EXPECT_EQ(made, delays().size());
}

TEST_F(presence, a_wait_ends_by_its_limit_or_when_the_hub_knows_what_was_subscribed_before_it) {
    make();
    known->wait_until_ready(100ms, say("waited"), say("timed out"));
    loop->advance(100);
    EXPECT_THAT(now_said(), ElementsAre("timed out"));
    relay();
    relay();
    EXPECT_THAT(now_said(), ElementsAre("ready"));
    tolvan::vesk::v1::subscriber subscriber;
    subscriber.subscribe("new", nullptr, nullptr);
    known->wait_until_ready(100ms, say("waited"), say("timed out"));
    EXPECT_THAT(now_said(), IsEmpty());
    loop->advance(0);
    EXPECT_THAT(relay(), ElementsAre("new", probe));
    EXPECT_THAT(now_said(), ElementsAre("waited"));
    loop->advance(1000);
    EXPECT_THAT(now_said(), IsEmpty());
    EXPECT_THROW(known->wait_until_ready(1s, nullptr, [] {}), std::invalid_argument);
}

TEST_F(presence, may_be_destroyed_by_its_callback_and_calls_no_more_then) {
    known.emplace(loop, hub_presence::callbacks{.ready = [this, own = std::string(100, 'x')] {
                      known.reset();
                      said.push_back(own);
                  }});
    known->wait_until_ready(1s, say("waited"), say("timed out"));
    loop->advance(0);
    relay();
    relay();
    loop->advance(10'000);
    EXPECT_THAT(now_said(), ElementsAre(std::string(100, 'x')));
    EXPECT_THROW(hub_presence(nullptr, {}), std::invalid_argument);
    EXPECT_THROW(hub_presence(loop, {}, {.probe_interval = -1ms}), std::invalid_argument);
}

}  // namespace

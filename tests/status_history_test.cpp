#include "hub/status_history.hpp"

#include <gmock/gmock.h>

using namespace std::chrono_literals;
using namespace testing;
using namespace tolvan::vesk::tool;

namespace {

class StatusHistory : public Test {
  protected:
    void look(std::chrono::milliseconds later, std::uint64_t turns, std::uint64_t messages = 0) {
        hub_sample sample;
        sample.counted.turns = turns;
        sample.counted.messages_in = messages;
        history.add(sample, now += later);
    }

    status_history history{hub_facts{}};
    status_history::clock::time_point now = status_history::clock::now();
};

TEST_F(StatusHistory, TellsWhichLoopHasStoppedAndNothingWhileBothTurn) {
    look(0s, 1);
    look(4s, 1);
    EXPECT_EQ(history.status()->trouble(now + 4s), std::nullopt);
    EXPECT_THAT(*history.status()->trouble(now + 6s), StartsWith("the main loop has not turned for 6 s"));
    look(2s, 1);
    EXPECT_THAT(*history.status()->trouble(now), StartsWith("the relaying loop has not turned for 6 s"));
    look(1s, 2);
    EXPECT_EQ(history.status()->trouble(now), std::nullopt);
}

TEST_F(StatusHistory, KeepsTheNewestTenMinutesAndTakesRatesOverTheTimeThatReallyPassed) {
    for (std::uint64_t i = 0; i < 700; ++i) look(i % 2 == 0 ? 500ms : 2s, i, 100 * i);
    const auto found = rates(history.status()->samples, [](auto& each) { return each.counted.messages_in; });
    ASSERT_EQ(found.size(), 600);
    EXPECT_THAT(found.front(), DoubleNear(200, 0.01));
    EXPECT_THAT(found.back(), DoubleNear(50, 0.01));
    EXPECT_EQ(history.status()->now().counted.messages_in, 69'900);
}

}  // namespace

#include <atomic>
#include <limits>
#include <thread>

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <tolvan/asio_event_loop.hpp>

namespace {

using namespace std::chrono_literals;
using tolvan::asio_event_loop;
using milliseconds = tolvan::event_loop_v1::milliseconds;
using holder = tolvan::event_loop_v1::holder<tolvan::timer_impl_base>;

class event_loop : public testing::Test {
  protected:
    ~event_loop() override {
        for (const int opened : {fd, other, silent}) ::close(opened);
    }
    void make_readable() { ::eventfd_write(fd, 1); }
    holder after(milliseconds delay, std::function<void()> callback) {
        return loop.create_timer("test", delay, 0ms, std::move(callback));
    }
    const int fd = ::eventfd(0, 0);
    const int other = ::eventfd(1, 0);
    const int silent = ::eventfd(0, 0);
    asio_event_loop loop;
};

// One that is late now and then is not to blame; one whose every step takes two points is off the grid.
TEST_F(event_loop, a_chain_of_timers_never_fires_before_its_point_on_the_millisecond_grid_but_soon_on_it) {
    auto before = loop.now();
    int fired = 0, next_points = 0;
    holder timer;
    const std::function<void()> step = [&] {
        const auto took = loop.now() - std::exchange(before, loop.now());
        EXPECT_GE(took, 1ms);
        EXPECT_FALSE(timer->pending);
        next_points += took == 1ms;
        if (++fired > 2000 || (fired >= 20 && next_points > 0)) return loop.stop();
        timer = after(1ms, step);
        EXPECT_TRUE(timer->pending);
    };
    timer = after(1ms, step);
    loop.run();
    EXPECT_GT(next_points, 0);
}

TEST_F(event_loop, timers_fire_in_the_order_of_their_due_times_and_past_delays_at_once) {
    std::vector<int> order;
    const auto orphan = asio_event_loop().create_timer("outlives its loop", 1ms, 0ms, [] {});
    const auto late = after(300ms, [&] { order.push_back(3), loop.stop(); });
    const auto past = after(milliseconds::min(), [&] { order.push_back(1); });
    const auto soon = after(1ms, [&] { order.push_back(2); });
    const auto never = after(milliseconds::max(), [&] { order.push_back(4); });
    loop.run();
    EXPECT_EQ((std::vector{1, 2, 3}), order);
    EXPECT_TRUE(orphan->pending);
}

TEST_F(event_loop, a_timer_released_when_its_expiry_is_queued_already_does_not_fire) {
    holder second;
    const auto first = after(0ms, [&] { second.reset(); });
    second = after(0ms, [] { FAIL() << "a released timer fired"; });
    const auto end = after(2ms, [&] { loop.stop(); });
    loop.run();
}

TEST_F(event_loop, a_callback_outlives_the_release_of_its_timer_or_watch_from_inside) {
    int calls = 0;
    const std::string text(100, 'x');
    holder timer;
    timer = after(0ms, [&, captured = text] {
        timer.reset();
        EXPECT_EQ(text, captured);
        make_readable();
    });
    loop.watch_fd({fd}, 0, [&, captured = text](auto same, auto) {
        loop.unwatch_fd(same);
        loop.watch_fd(same, 0, [&](auto, auto) { ++calls, loop.stop(); });
        EXPECT_EQ(text, captured);
    });
    loop.run();
    EXPECT_EQ(1, calls);
}

TEST_F(event_loop, a_watch_is_called_as_long_as_its_descriptor_is_readable_and_whenever_it_is_again) {
    int calls = 0;
    holder next;
    make_readable();
    loop.watch_fd({fd}, 0, [&](auto readable, auto events) {
        EXPECT_EQ(POLLIN, events.bits);
        if (++calls < 3) return;
        eventfd_t drained = 0;
        ::eventfd_read(readable.value, &drained);
        if (calls == 3) next = after(2ms, [&] { make_readable(); });
        if (calls == 4) next = after(2ms, [&] { loop.stop(); });
    });
    loop.run();
    EXPECT_EQ(4, calls);
}

TEST_F(event_loop, a_watch_is_not_called_for_the_event_of_one_that_ended_in_the_same_turn) {
    int calls = 0;
    const auto replace_the_other = [&](auto ready, auto) {
        ++calls;
        loop.unwatch_fd({ready.value == fd ? other : fd});
        loop.watch_fd({silent}, 0, [](auto, auto) { FAIL() << "nothing was readable"; });
    };
    make_readable();
    loop.watch_fd({fd}, 0, replace_the_other);
    loop.watch_fd({other}, 0, replace_the_other);
    const auto end = after(0ms, [&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(1, calls);
}

TEST_F(event_loop, an_exception_leaves_run_and_nothing_is_lost_for_the_next_run_not_even_after_a_stop) {
    int calls = 0;
    make_readable();
    loop.watch_fd({fd}, 0, [&](auto, auto) {
        if (++calls == 1) throw std::runtime_error("from a watch");
        loop.unwatch_fd({fd});
    });
    const auto throwing = after(0ms, [&] {
        loop.stop();
        throw std::runtime_error("from a timer");
    });
    bool fired = false;
    const auto last = after(5ms, [&] { fired = true, loop.stop(); });
    EXPECT_THROW(loop.run(), std::runtime_error);
    EXPECT_THROW(loop.run(), std::runtime_error);
    loop.run();
    EXPECT_EQ(2, calls);
    EXPECT_TRUE(fired);
}

TEST_F(event_loop, misuse_is_refused_with_a_text_that_names_it) {
    const auto named = "descriptor " + std::to_string(fd);
    const auto ignore = [](auto, auto) {};
    const auto refusal = [](const std::string& text) {
        return testing::ThrowsMessage<std::logic_error>(testing::HasSubstr(text));
    };
    EXPECT_THAT([&] { loop.unwatch_fd({fd}); }, refusal(named + " is not watched"));
    EXPECT_THAT([&] { loop.watch_fd({fd}, 1, ignore); }, refusal("reserved"));
    loop.watch_fd({fd}, 0, ignore);
    EXPECT_THAT([&] { loop.watch_fd({fd}, 0, ignore); }, refusal(named + " is already watched"));
    EXPECT_THAT([&] { loop.create_timer("test", 1ms, 1ms, [] {}); }, refusal("reserved"));
    EXPECT_THROW(loop.watch_fd({-1}, 0, ignore), std::system_error);
    const auto nested = after(0ms, [&] {
        EXPECT_THAT([&] { loop.run(); }, refusal("inside run()"));
        loop.stop();
    });
    loop.run();
}

TEST_F(event_loop, run_waits_also_when_there_is_nothing_to_wait_for_but_not_after_a_stop) {
    loop.stop();
    loop.run();
    std::atomic<bool> stopping = false;
    const std::jthread stopper([&] { stopping = true, loop.stop(); });
    loop.run();
    EXPECT_TRUE(stopping);
}

}  // namespace

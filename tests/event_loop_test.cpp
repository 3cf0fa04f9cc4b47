#include <array>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <tolvan/asio_event_loop.hpp>

namespace {

using namespace std::chrono_literals;
using tolvan::asio_event_loop;
using milliseconds = tolvan::event_loop_v1::milliseconds;
using holder = tolvan::event_loop_v1::holder<tolvan::timer_impl_base>;

class event_loop : public testing::Test {
  protected:
    holder after(milliseconds delay, std::function<void()> callback) {
        return loop.create_timer("test", delay, 0ms, std::move(callback));
    }

    asio_event_loop loop;
};

class event_loop_with_pipe : public event_loop {
  protected:
    event_loop_with_pipe() { EXPECT_EQ(0, ::pipe(ends.data())); }
    ~event_loop_with_pipe() override {
        ::close(ends[0]);
        ::close(ends[1]);
    }
    void write_byte() { EXPECT_EQ(1, ::write(ends[1], "x", 1)); }
    void read_byte() {
        char byte = 0;
        EXPECT_EQ(1, ::read(ends[0], &byte, 1));
    }

    std::array<int, 2> ends{};
};

TEST_F(event_loop, a_chain_of_timers_never_fires_before_its_point_on_the_millisecond_grid) {
    const auto start = loop.now();
    int fired = 0;
    holder timer;
    const std::function<void()> step = [&] {
        EXPECT_GE(loop.now(), start + milliseconds(++fired));
        EXPECT_FALSE(timer->pending);
        if (fired == 20) return loop.stop();
        timer = after(1ms, step);
        EXPECT_TRUE(timer->pending);
    };
    timer = after(1ms, step);
    loop.run();
    EXPECT_EQ(20, fired);
}

TEST_F(event_loop, timers_fire_in_the_order_of_their_due_times_and_past_delays_at_once) {
    std::vector<int> order;
    const auto late = after(300ms, [&] { order.push_back(3), loop.stop(); });
    const auto soon = after(1ms, [&] { order.push_back(2); });
    const auto past = after(milliseconds::min(), [&] { order.push_back(1); });
    const auto never = after(milliseconds::max(), [&] { order.push_back(4); });
    loop.run();
    EXPECT_EQ((std::vector{1, 2, 3}), order);
}

TEST_F(event_loop, a_timer_released_when_its_expiry_is_queued_already_does_not_fire) {
    holder second;
    const auto first = after(0ms, [&] { second.reset(); });
    second = after(0ms, [] { FAIL() << "a released timer fired"; });
    const auto end = after(2ms, [&] { loop.stop(); });
    loop.run();
}

TEST_F(event_loop, a_timer_that_releases_itself_keeps_its_callback_until_it_returns) {
    holder timer;
    timer = after(0ms, [&timer, this, text = std::string(100, 'x')] {
        timer.reset();
        EXPECT_EQ(std::string(100, 'x'), text);
        loop.stop();
    });
    loop.run();
}

TEST_F(event_loop_with_pipe, a_descriptor_that_stays_readable_keeps_calling_its_watch) {
    int calls = 0;
    write_byte();
    loop.watch_fd({ends[0]}, 0, [&](auto fd, auto) {
        EXPECT_EQ(ends[0], fd.value);
        if (++calls == 3) loop.stop();
    });
    loop.run();
    EXPECT_EQ(3, calls);
}

TEST_F(event_loop_with_pipe, a_drained_descriptor_is_quiet_until_it_is_readable_again) {
    int calls = 0;
    write_byte();
    loop.watch_fd({ends[0]}, 0, [&](auto, auto) { ++calls, read_byte(); });
    const auto again = after(5ms, [&] {
        EXPECT_EQ(1, calls);
        write_byte();
    });
    const auto end = after(10ms, [&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(2, calls);
}

TEST_F(event_loop_with_pipe, a_watch_may_end_and_renew_itself_from_its_own_callback) {
    int renewed = 0;
    write_byte();
    loop.watch_fd({ends[0]}, 0, [&, text = std::string(100, 'x')](auto fd, auto) {
        loop.unwatch_fd(fd);
        loop.watch_fd(fd, 0, [&](auto, auto) { ++renewed, loop.stop(); });
        EXPECT_EQ(std::string(100, 'x'), text);
    });
    loop.run();
    EXPECT_EQ(1, renewed);
}

TEST_F(event_loop_with_pipe, an_exception_leaves_run_and_nothing_is_lost_for_the_next_run) {
    int calls = 0;
    bool fired = false;
    write_byte();
    loop.watch_fd({ends[0]}, 0, [&](auto, auto) {
        if (++calls == 1) throw std::runtime_error("from a watch");
        loop.unwatch_fd({ends[0]});
    });
    const auto throwing = after(0ms, [] { throw std::runtime_error("from a timer"); });
    const auto last = after(5ms, [&] { fired = true, loop.stop(); });
    EXPECT_THROW(loop.run(), std::runtime_error);
    EXPECT_THROW(loop.run(), std::runtime_error);
    loop.run();
    EXPECT_EQ(2, calls);
    EXPECT_TRUE(fired);
}

TEST_F(event_loop_with_pipe, misuse_is_refused_with_a_text_that_names_it) {
    const auto text_of = [](const std::function<void()>& misuse) -> std::string {
        try {
            misuse();
        } catch (const std::exception& error) {
            return error.what();
        }
        return "nothing was thrown";
    };
    const auto named = "descriptor " + std::to_string(ends[0]);
    const auto ignore = [](auto, auto) {};
    EXPECT_EQ(named + " is not watched", text_of([&] { loop.unwatch_fd({ends[0]}); }));
    loop.watch_fd({ends[0]}, 0, ignore);
    EXPECT_EQ(named + " is already watched", text_of([&] { loop.watch_fd({ends[0]}, 0, ignore); }));
    EXPECT_THROW(loop.watch_fd({ends[1]}, 1, ignore), std::invalid_argument);
    EXPECT_THROW(loop.watch_fd({-1}, 0, ignore), std::system_error);
    EXPECT_THROW(loop.create_timer("test", 1ms, 1ms, [] {}), std::invalid_argument);
    const auto nested = after(0ms, [&] {
        EXPECT_THROW(loop.run(), std::logic_error);
        loop.stop();
    });
    loop.run();
}

TEST_F(event_loop, a_stop_before_run_ends_the_next_run_only) {
    loop.stop();
    loop.run();
    bool fired = false;
    const auto timer = after(0ms, [&] { fired = true, loop.stop(); });
    loop.run();
    EXPECT_TRUE(fired);
}

TEST(event_loop_timer, may_outlive_its_loop) {
    holder timer;
    {
        asio_event_loop loop;
        timer = loop.create_timer("test", 1ms, 0ms, [] {});
    }
    EXPECT_TRUE(timer->pending);
}

}  // namespace

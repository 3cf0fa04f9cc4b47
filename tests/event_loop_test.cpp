// What every event loop keeps to, and the Asio loop beyond that.
#include <atomic>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "support/event_loops.hpp"

namespace {

using namespace std::chrono_literals;
using tolvan::asio_event_loop;
using milliseconds = tolvan::event_loop_v1::milliseconds;
using holder = tolvan::event_loop_v1::holder<tolvan::timer_impl_base>;

template <typename Loop>
class event_loop : public testing::Test {
  protected:
    ~event_loop() override {
        for (const int opened : {fd, other, silent}) ::close(opened);
    }
    void run() { host.run(); }
    void stop() { host.stop(); }
    void make_readable() { ::eventfd_write(fd, 1); }
    holder after(milliseconds delay, std::function<void()> callback) {
        return loop.create_timer("test", delay, 0ms, std::move(callback));
    }
    const int fd = ::eventfd(0, 0);
    const int other = ::eventfd(1, 0);
    const int silent = ::eventfd(0, 0);
    Loop host;
    tolvan::event_loop_v1& loop = *host.loop;
};
TYPED_TEST_SUITE(event_loop, tolvan::test::all_loops);

// One that is late now and then is not to blame; one whose every step takes two points is off the grid.
TYPED_TEST(event_loop,
           a_chain_of_timers_never_fires_before_its_point_on_the_millisecond_grid_but_soon_on_it) {
    auto before = this->loop.now();
    int fired = 0, next_points = 0;
    holder timer;
    const std::function<void()> step = [&] {
        const auto took = this->loop.now() - std::exchange(before, this->loop.now());
        EXPECT_GE(took, 1ms);
        EXPECT_FALSE(timer->pending);
        next_points += took == 1ms;
        if (++fired > 2000 || (fired >= 20 && next_points > 0)) return this->stop();
        timer = this->after(1ms, step);
        EXPECT_TRUE(timer->pending);
    };
    timer = this->after(1ms, step);
    this->run();
    EXPECT_GT(next_points, 0);
}

TYPED_TEST(event_loop, timers_fire_in_the_order_of_their_due_times_and_past_delays_at_once) {
    std::vector<int> order;
    const auto orphan = TypeParam().loop->create_timer("outlives its loop", 1ms, 0ms, [] {});
    const auto late = this->after(300ms, [&] { order.push_back(3), this->stop(); });
    const auto past = this->after(milliseconds::min(), [&] { order.push_back(1); });
    const auto soon = this->after(1ms, [&] { order.push_back(2); });
    const auto never = this->after(milliseconds::max(), [&] { order.push_back(4); });
    this->run();
    EXPECT_EQ((std::vector{1, 2, 3}), order);
    EXPECT_TRUE(orphan->pending);
}

TYPED_TEST(event_loop, a_timer_released_when_its_expiry_is_queued_already_does_not_fire) {
    holder second;
    const auto first = this->after(0ms, [&] { second.reset(); });
    second = this->after(0ms, [] { FAIL() << "a released timer fired"; });
    const auto end = this->after(2ms, [&] { this->stop(); });
    this->run();
}

TYPED_TEST(event_loop, a_callback_outlives_the_release_of_its_timer_or_watch_from_inside) {
    int calls = 0;
    const std::string text(100, 'x');
    holder timer;
    timer = this->after(0ms, [&, captured = text] {
        timer.reset();
        EXPECT_EQ(text, captured);
        this->make_readable();
    });
    this->loop.watch_fd({this->fd}, 0, [&, captured = text](auto same, auto) {
        this->loop.unwatch_fd(same);
        this->loop.watch_fd(same, 0, [&](auto, auto) { ++calls, this->stop(); });
        EXPECT_EQ(text, captured);
    });
    this->run();
    EXPECT_EQ(1, calls);
}

TYPED_TEST(event_loop, a_watch_is_called_as_long_as_its_descriptor_is_readable_and_whenever_it_is_again) {
    int calls = 0;
    holder next;
    this->make_readable();
    this->loop.watch_fd({this->fd}, 0, [&](auto readable, auto events) {
        EXPECT_EQ(POLLIN, events.bits);
        if (++calls < 3) return;
        eventfd_t drained = 0;
        ::eventfd_read(readable.value, &drained);
        if (calls == 3) next = this->after(2ms, [&] { this->make_readable(); });
        if (calls == 4) next = this->after(2ms, [&] { this->stop(); });
    });
    this->run();
    EXPECT_EQ(4, calls);
}

TYPED_TEST(event_loop, a_watch_is_not_called_for_the_event_of_one_that_ended_in_the_same_turn) {
    int calls = 0;
    const auto replace_the_other = [&](auto ready, auto) {
        ++calls;
        this->loop.unwatch_fd({ready.value == this->fd ? this->other : this->fd});
        this->loop.watch_fd({this->silent}, 0, [](auto, auto) { FAIL() << "nothing was readable"; });
    };
    this->make_readable();
    this->loop.watch_fd({this->fd}, 0, replace_the_other);
    this->loop.watch_fd({this->other}, 0, replace_the_other);
    const auto end = this->after(0ms, [&] { this->stop(); });
    this->run();
    EXPECT_EQ(1, calls);
}

TYPED_TEST(event_loop, an_exception_leaves_run_and_nothing_is_lost_for_the_next_run_not_even_after_a_stop) {
    int calls = 0;
    bool fired = false;
    const auto stop_after_both = [&] {
        if (calls == 2 && fired) this->stop();
    };
    this->make_readable();
    this->loop.watch_fd({this->fd}, 0, [&](auto, auto) {
        if (++calls == 1) throw std::runtime_error("from a watch");
        this->loop.unwatch_fd({this->fd});
        stop_after_both();
    });
    const auto throwing = this->after(0ms, [&] {
        this->stop();
        throw std::runtime_error("from a timer");
    });
    const auto last = this->after(5ms, [&] { fired = true, stop_after_both(); });
    EXPECT_THROW(this->run(), std::runtime_error);
    EXPECT_THROW(this->run(), std::runtime_error);
    this->run();
    EXPECT_EQ(2, calls);
    EXPECT_TRUE(fired);
}

TYPED_TEST(event_loop, no_callback_runs_inside_another_one) {
    bool inside = false;
    int calls = 0;
    const auto call = [&] {
        EXPECT_FALSE(std::exchange(inside, true));
        if (++calls == 1) this->host.run_inside_a_callback();
        if (calls == 3) this->stop();
        inside = false;
    };
    this->make_readable();
    for (const int readable : {this->fd, this->other})
        this->loop.watch_fd({readable}, 0, [&](auto same, auto) {
            this->loop.unwatch_fd(same);
            call();
        });
    const auto due = this->after(0ms, call);
    this->run();
    EXPECT_EQ(3, calls);
}

TYPED_TEST(event_loop, a_descriptor_that_is_always_readable_and_a_timer_made_again_and_again_starve_nobody) {
    int of_fd = 0, of_file = 0, of_timer = 0;
    const auto done = [&] {
        if (std::min({of_fd, of_file, of_timer}) >= 5) this->stop();
    };
    const int file = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    this->make_readable();
    this->loop.watch_fd({this->fd}, 0, [&](auto, auto) { ++of_fd, done(); });
    this->loop.watch_fd({file}, 0, [&](auto, auto) { ++of_file, done(); });
    holder timer;
    const std::function<void()> again = [&] {
        ++of_timer;
        done();
        timer = this->after(0ms, again);
    };
    again();
    this->run();
    for (const int watched : {this->fd, file}) this->loop.unwatch_fd({watched});
    ::close(file);
}

TYPED_TEST(event_loop, misuse_is_refused_with_a_text_that_names_it) {
    const auto named = "descriptor " + std::to_string(this->fd);
    const auto ignore = [](auto, auto) {};
    const auto refusal = [](const std::string& text) {
        return testing::ThrowsMessage<std::logic_error>(testing::HasSubstr(text));
    };
    EXPECT_THAT([&] { this->loop.unwatch_fd({this->fd}); }, refusal(named + " is not watched"));
    EXPECT_THAT([&] { this->loop.watch_fd({this->fd}, 1, ignore); }, refusal("reserved"));
    this->loop.watch_fd({this->fd}, 0, ignore);
    EXPECT_THAT([&] { this->loop.watch_fd({this->fd}, 0, ignore); }, refusal(named + " is already watched"));
    EXPECT_THAT([&] { this->loop.create_timer("test", 1ms, 1ms, [] {}); }, refusal("reserved"));
    EXPECT_THROW(this->loop.watch_fd({-1}, 0, ignore), std::system_error);
}

TEST(embedded_event_loop, does_not_wake_the_loop_around_it_when_a_turn_would_do_nothing) {
    tolvan::vesk::toolkit::embedded_event_loop loop;
    const auto wakes_within = [&](int ms) {
        pollfd asked{.fd = loop.descriptor(), .events = POLLIN, .revents = 0};
        return ::poll(&asked, 1, ms) == 1;
    };
    const auto later = loop.create_timer("test", 1h, 0ms, [] {});
    EXPECT_FALSE(wakes_within(0));
    const auto soon = loop.create_timer("test", 1ms, 0ms, [] {});
    EXPECT_TRUE(wakes_within(60'000));
    loop.turn();
    EXPECT_FALSE(soon->pending || wakes_within(0));
}

TEST(asio_event_loop, run_waits_also_when_there_is_nothing_to_wait_for_but_not_after_a_stop) {
    asio_event_loop loop;
    loop.stop();
    loop.run();
    std::atomic<bool> stopping = false;
    const std::jthread stopper([&] { stopping = true, loop.stop(); });
    loop.run();
    EXPECT_TRUE(stopping);
}

}  // namespace

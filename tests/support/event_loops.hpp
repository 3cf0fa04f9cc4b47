#pragma once

#include <exception>
#include <memory>
#include <utility>

#include <glib.h>
#include <gtest/gtest.h>
#include <uv.h>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/toolkit/glib_event_loop.hpp>
#include <tolvan/vesk/toolkit/uv_event_loop.hpp>

#include "../examples/epoll_event_loop.hpp"

/// One of each kind of event loop, with what an application has around it.
namespace tolvan::test {

/// A loop that runs by itself.
template <typename Loop>
class own_loop {
  public:
    void run() { loop->run(); }
    void stop() { loop->stop(); }

    /// What a callback must not be able to do: to have others run.
    void run_inside_a_callback() { EXPECT_THROW(run(), std::logic_error); }

    const std::shared_ptr<Loop> loop = std::make_shared<Loop>();
};

using asio_loop = own_loop<asio_event_loop>;
using epoll_loop = own_loop<epoll_event_loop>;

/// Keeps an exception on its way through a loop that is written in C.
class kept_failure {
  public:
    void keep(std::exception_ptr thrown) { failure = std::move(thrown); }
    void rethrow() {
        if (failure) std::rethrow_exception(std::exchange(failure, nullptr));
    }

  private:
    std::exception_ptr failure;
};

class uv_loop {
  public:
    uv_loop() = default;
    uv_loop(const uv_loop&) = delete;
    uv_loop& operator=(const uv_loop&) = delete;
    ~uv_loop() {
        loop.reset();
        ::uv_run(&uv, UV_RUN_DEFAULT);
        EXPECT_EQ(0, ::uv_loop_close(&uv));
    }

    void run() {
        ::uv_run(&uv, UV_RUN_DEFAULT);
        failure.rethrow();
    }
    void stop() { ::uv_stop(&uv); }
    void run_inside_a_callback() { EXPECT_THROW(loop->turn(), std::logic_error); }

  private:
    uv_loop_t uv{};
    const int initialised = ::uv_loop_init(&uv);
    kept_failure failure;

  public:
    std::shared_ptr<vesk::toolkit::uv_event_loop> loop =
        std::make_shared<vesk::toolkit::uv_event_loop>(&uv, [this](std::exception_ptr thrown) {
            failure.keep(std::move(thrown));
            stop();
        });
};

class glib_loop {
  public:
    glib_loop() = default;
    glib_loop(const glib_loop&) = delete;
    glib_loop& operator=(const glib_loop&) = delete;
    ~glib_loop() {
        loop.reset();
        ::g_main_loop_unref(outer);
        ::g_main_context_unref(context);
    }

    void run() {
        ::g_main_loop_run(outer);
        failure.rethrow();
    }
    void stop() { ::g_main_loop_quit(outer); }
    void run_inside_a_callback() {
        while (::g_main_context_iteration(context, FALSE)) continue;
    }

  private:
    GMainContext* const context = ::g_main_context_new();
    GMainLoop* const outer = ::g_main_loop_new(context, FALSE);
    kept_failure failure;

  public:
    std::shared_ptr<vesk::toolkit::glib_event_loop> loop =
        std::make_shared<vesk::toolkit::glib_event_loop>(context, [this](std::exception_ptr thrown) {
            failure.keep(std::move(thrown));
            stop();
        });
};

using all_loops = testing::Types<asio_loop, uv_loop, glib_loop, epoll_loop>;

}  // namespace tolvan::test

// The loop stands on Asio's io_context. Three things are its own:
//
// The millisecond grid. now() is the steady clock cut to whole milliseconds, and a timer of d ms made at
// now() == t expires at the grid point t + d, not d ms after the moment of the call. A chain of 1 ms timers
// therefore fires once per millisecond, however late within its millisecond each callback runs.
//
// Who keeps a callback. A timer and a watch own their callback; what is queued inside Asio only knows them
// weakly. Releasing one therefore silences it, also when its expiry is queued already, and one that is
// released from its own callback lives until that callback returns.
//
// A second look. Asio takes events from the kernel in batches, and reuses its record of a descriptor as soon
// as that is released. A watch made while a batch is worked off can thus be told of an event that another
// descriptor had before. So each watch asks the kernel once more before it calls.
#include <algorithm>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <poll.h>

#include <tolvan/asio_event_loop.hpp>

namespace tolvan {

namespace {

using clock = std::chrono::steady_clock;
using watch_callback = std::function<void(event_loop_v1::file_desc, event_loop_v1::poll_events)>;

// Longer delays would overflow the clock's nanoseconds; nobody waits for the difference.
constexpr event_loop_v1::milliseconds longest_delay = std::chrono::hours(24 * 365 * 100);

struct watch {
    watch(asio::io_context& io, event_loop_v1::file_desc fd, watch_callback&& on_readable)
        : descriptor(io, fd.value), callback(std::move(on_readable)) {}
    watch(const watch&) = delete;
    watch& operator=(const watch&) = delete;
    ~watch() { end(); }

    // Lets go of the descriptor without closing it: it belongs to somebody else.
    void end() {
        if (descriptor.is_open()) descriptor.release();
    }

    asio::posix::stream_descriptor descriptor;
    watch_callback callback;
};

// Also true of a plain file, and of a pipe that has ended.
bool is_readable(int fd) {
    pollfd asked{.fd = fd, .events = POLLIN, .revents = 0};
    return ::poll(&asked, 1, 0) != 0;
}

void await_readable(const std::shared_ptr<watch>& watched);

// The next wait begins after the callback, so that a descriptor which the callback has drained does not wake
// the loop again, and also when the callback throws, so that the watch outlives the exception.
struct await_again {
    const std::shared_ptr<watch>& watched;
    ~await_again() {
        if (watched->descriptor.is_open()) await_readable(watched);
    }
};

void await_readable(const std::shared_ptr<watch>& watched) {
    watched->descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                                   [observed = std::weak_ptr<watch>(watched)](const asio::error_code& error) {
                                       const auto running = observed.lock();
                                       if (!running || error == asio::error::operation_aborted)
                                           return;  // a plain file gives an error: ready
                                       const await_again afterwards{running};
                                       const int fd = running->descriptor.native_handle();
                                       if (is_readable(fd)) running->callback({fd}, {POLLIN});
                                   });
}

class asio_timer final : public timer_impl_base {
  public:
    asio_timer(std::shared_ptr<asio::io_context> context, event_loop_v1::milliseconds due,
               std::function<void()>&& on_expiry)
        : io(std::move(context)), timer(*io, clock::time_point(due)), callback(std::move(on_expiry)) {}

    static void start(const std::shared_ptr<asio_timer>& started) {
        started->timer.async_wait([observed = std::weak_ptr<asio_timer>(started)](const asio::error_code&) {
            const auto running = observed.lock();
            if (!running) return;
            running->pending = false;
            running->callback();
        });
    }

  private:
    std::shared_ptr<asio::io_context> io;  // a holder may outlive its loop
    asio::steady_timer timer;
    std::function<void()> callback;
};

std::string named(event_loop_v1::file_desc fd) {
    return "descriptor " + std::to_string(fd.value);
}

}  // namespace

struct asio_event_loop::state {
    std::shared_ptr<asio::io_context> io = std::make_shared<asio::io_context>(1);
    asio::executor_work_guard<asio::io_context::executor_type> stay = asio::make_work_guard(*io);
    std::unordered_map<int, std::shared_ptr<watch>> watches;
    bool running = false;
};

asio_event_loop::asio_event_loop() : loop(std::make_shared<state>()) {}
asio_event_loop::~asio_event_loop() = default;

void asio_event_loop::run() {
    if (loop->running) throw std::logic_error("event loop: run() was called from inside run()");
    struct running_mark {
        const std::shared_ptr<state> loop;
        ~running_mark() {
            loop->running = false;
            loop->io->restart();
        }
    } const mark{loop};
    mark.loop->running = true;
    mark.loop->io->run();
}

void asio_event_loop::stop() {
    loop->io->stop();
}

void asio_event_loop::watch_fd(file_desc fd, int reserved, watch_callback callback) {
    if (reserved != 0) throw std::invalid_argument("watch_fd: the second argument is reserved and must be 0");
    if (loop->watches.contains(fd.value)) throw std::logic_error(named(fd) + " is already watched");
    const auto started = std::make_shared<watch>(*loop->io, fd, std::move(callback));
    await_readable(started);
    loop->watches.emplace(fd.value, started);
}

void asio_event_loop::unwatch_fd(file_desc fd) {
    const auto ended = loop->watches.extract(fd.value);
    if (!ended) throw std::logic_error(named(fd) + " is not watched");
    ended.mapped()->end();
}

event_loop_v1::milliseconds asio_event_loop::now() {
    return std::chrono::floor<milliseconds>(clock::now().time_since_epoch());
}

event_loop_v1::holder<timer_impl_base> asio_event_loop::create_timer(const char* /*name*/, milliseconds delay,
                                                                     milliseconds reserved,
                                                                     std::function<void()> callback) {
    if (reserved != milliseconds::zero())
        throw std::invalid_argument("create_timer: the second duration is reserved and must be 0");
    const auto due = now() + std::clamp(delay, milliseconds::zero(), longest_delay);
    const auto timer = std::make_shared<asio_timer>(loop->io, due, std::move(callback));
    asio_timer::start(timer);
    return timer;
}

}  // namespace tolvan

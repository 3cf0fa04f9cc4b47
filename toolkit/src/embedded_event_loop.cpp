// An epoll set holds the watched descriptors and a timerfd, which is set to the due time of the next timer.
// Both kinds of event are taken from the kernel one at a time: so none is stale when its callback runs,
// whatever the callbacks before it have ended or begun, and the others stay where they are when one throws.
// The kernel takes descriptors that stay readable in turns.
#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unordered_map>
#include <utility>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <tolvan/vesk/toolkit/embedded_event_loop.hpp>

namespace tolvan::vesk::toolkit {

namespace {

using milliseconds = event_loop_v1::milliseconds;
using watch_callback = std::function<void(event_loop_v1::file_desc, event_loop_v1::poll_events)>;

// Longer delays would overflow the seconds of a 32-bit machine; nobody waits for the difference.
constexpr milliseconds longest_delay = std::chrono::hours(24 * 365 * 50);

milliseconds steady_now() {
    return std::chrono::floor<milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

[[noreturn]] void throw_errno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string named(event_loop_v1::file_desc fd) {
    return "descriptor " + std::to_string(fd.value);
}

class owned_descriptor {
  public:
    owned_descriptor(int opened, const char* call) : fd(opened) {
        if (fd < 0) throw_errno(call);
    }
    owned_descriptor(const owned_descriptor&) = delete;
    owned_descriptor& operator=(const owned_descriptor&) = delete;
    ~owned_descriptor() { ::close(fd); }

    const int fd;
};

class timer;

class timer_queue {
  public:
    using entries = std::multimap<milliseconds, timer*>;

    int fd() const { return clock.fd; }

    entries::iterator add(milliseconds due, timer* added) {
        const auto place = queue.emplace(due, added);
        arm();
        return place;
    }

    // The clock may stay set to a time at which nothing is due.
    void remove(entries::iterator place) { queue.erase(place); }

    void fire_next();

  private:
    struct arm_afterwards {
        timer_queue& timers;
        ~arm_afterwards() { timers.arm(); }
    };

    void arm() {
        const milliseconds next = queue.empty() ? milliseconds(0) : queue.begin()->first;
        if (std::exchange(armed, next) == next) return;
        const auto whole = std::chrono::floor<std::chrono::seconds>(next);
        itimerspec at{};
        at.it_value.tv_sec = static_cast<time_t>(whole.count());
        at.it_value.tv_nsec = static_cast<long>(std::chrono::nanoseconds(next - whole).count());
        ::timerfd_settime(clock.fd, TFD_TIMER_ABSTIME, &at, nullptr);
    }

    const owned_descriptor clock{::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC),
                                 "timerfd_create"};
    entries queue;
    milliseconds armed{0};  ///< 0 is not at all
};

class timer final : public timer_impl_base, public std::enable_shared_from_this<timer> {
  public:
    timer(std::shared_ptr<timer_queue> shared, milliseconds due, std::function<void()>&& on_expiry)
        : timers(std::move(shared)), place(timers->add(due, this)), callback(std::move(on_expiry)) {}
    timer(const timer&) = delete;
    timer& operator=(const timer&) = delete;
    ~timer() override {
        if (place) timers->remove(*place);
    }

    void fire() {
        const auto running = shared_from_this();  // its holder may let go of it
        timers->remove(*std::exchange(place, std::nullopt));
        pending = false;
        callback();
    }

  private:
    const std::shared_ptr<timer_queue> timers;  // a holder may outlive its loop
    std::optional<timer_queue::entries::iterator> place;
    std::function<void()> callback;
};

void timer_queue::fire_next() {
    const arm_afterwards whatever_happens{*this};
    if (!queue.empty() && queue.begin()->first <= steady_now()) queue.begin()->second->fire();
}

struct watch {
    watch_callback callback;
    std::optional<owned_descriptor>
        stand_in;  ///< readable for ever, for a plain file, which epoll does not take
};

}  // namespace

struct embedded_event_loop::state {
    state() { add(timers->fd(), timers->fd()); }

    // False when epoll does not take it. Events of `fd` come under the name of `watched`.
    bool add(int fd, int watched) const {
        epoll_event event{.events = EPOLLIN, .data = {.fd = watched}};
        if (::epoll_ctl(set.fd, EPOLL_CTL_ADD, fd, &event) == 0) return true;
        if (errno == EPERM) return false;
        throw_errno(named({watched}));
    }

    void remove(int fd) const {
        epoll_event unused{};
        ::epoll_ctl(set.fd, EPOLL_CTL_DEL, fd, &unused);
    }

    void dispatch() {
        epoll_event ready{};
        if (::epoll_wait(set.fd, &ready, 1, 0) != 1) return;
        if (ready.data.fd == timers->fd()) return timers->fire_next();
        const auto called = watches.find(ready.data.fd);
        if (called == watches.end()) return;  // closed before its watch has ended, and open elsewhere
        const auto running = called->second;  // which may end its watch
        running->callback({ready.data.fd}, {POLLIN});
    }

    const owned_descriptor set{::epoll_create1(EPOLL_CLOEXEC), "epoll_create1"};
    const std::shared_ptr<timer_queue> timers = std::make_shared<timer_queue>();
    std::unordered_map<int, std::shared_ptr<watch>> watches;
    bool in_turn = false;
};

embedded_event_loop::embedded_event_loop() : core(std::make_shared<state>()) {}
embedded_event_loop::~embedded_event_loop() = default;

int embedded_event_loop::descriptor() const {
    return core->set.fd;
}

void embedded_event_loop::turn() {
    struct turn_mark {
        const std::shared_ptr<state> core;  // stays when the callback destroys this object
        ~turn_mark() { core->in_turn = false; }
    };
    if (core->in_turn) throw std::logic_error("event loop: turn() was called from inside a callback");
    const turn_mark mark{core};
    mark.core->in_turn = true;
    mark.core->dispatch();
}

void embedded_event_loop::turn(const failure_handler& failed) noexcept {
    try {
        turn();
    } catch (...) {
        if (!failed) std::terminate();
        failed(std::current_exception());
    }
}

void embedded_event_loop::watch_fd(file_desc fd, int reserved, watch_callback callback) {
    if (reserved != 0) throw std::invalid_argument("watch_fd: the second argument is reserved and must be 0");
    if (core->watches.contains(fd.value)) throw std::logic_error(named(fd) + " is already watched");
    const auto added = std::make_shared<watch>();
    added->callback = std::move(callback);
    if (!core->add(fd.value, fd.value))
        core->add(added->stand_in.emplace(::eventfd(1, EFD_CLOEXEC), "eventfd").fd, fd.value);
    core->watches.emplace(fd.value, added);
}

void embedded_event_loop::unwatch_fd(file_desc fd) {
    const auto ended = core->watches.extract(fd.value);
    if (!ended) throw std::logic_error(named(fd) + " is not watched");
    core->remove(ended.mapped()->stand_in ? ended.mapped()->stand_in->fd : fd.value);
}

event_loop_v1::milliseconds embedded_event_loop::now() {
    return steady_now();
}

event_loop_v1::holder<timer_impl_base> embedded_event_loop::create_timer(const char* /*name*/,
                                                                         milliseconds delay,
                                                                         milliseconds reserved,
                                                                         std::function<void()> callback) {
    if (reserved != milliseconds::zero())
        throw std::invalid_argument("create_timer: the second duration is reserved and must be 0");
    const auto due = now() + std::clamp(delay, milliseconds::zero(), longest_delay);
    return std::make_shared<timer>(core->timers, due, std::move(callback));
}

}  // namespace tolvan::vesk::toolkit

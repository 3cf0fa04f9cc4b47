// The descriptor counts the functions that wait, so it is readable as long as there is one, and each time it
// is read for one of them. Nothing has to be remembered when a function throws.
#include <cerrno>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

#include <tolvan/vesk/toolkit/post_queue.hpp>

namespace tolvan::vesk::toolkit {

struct post_queue::state {
    state() {
        if (waiting < 0) throw std::system_error(errno, std::generic_category(), "post_queue: eventfd");
    }
    state(const state&) = delete;
    state& operator=(const state&) = delete;
    ~state() { ::close(waiting); }

    void add(std::function<void()>&& function) {
        const std::lock_guard guard(lock);
        functions.push_back(std::move(function));
        ::eventfd_write(waiting, 1);
    }

    std::function<void()> take() {
        const std::lock_guard guard(lock);
        eventfd_t one = 0;
        if (::eventfd_read(waiting, &one) != 0) return [] {};
        auto first = std::move(functions.front());
        functions.pop_front();
        return first;
    }

    const int waiting = ::eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
    std::mutex lock;
    std::deque<std::function<void()>> functions;
};

post_queue::post_queue(std::shared_ptr<event_loop_v1> loop)
    : events(std::move(loop)), queue(std::make_shared<state>()) {
    if (!events) throw std::invalid_argument("post_queue: there is no event loop");
    events->watch_fd({queue->waiting}, 0, [observed = std::weak_ptr<state>(queue)](auto, auto) {
        if (const auto running = observed.lock()) running->take()();
    });
}

post_queue::~post_queue() {
    events->unwatch_fd({queue->waiting});
}

void post_queue::post(std::function<void()> function) {
    if (!function) throw std::invalid_argument("post_queue: the function is empty");
    queue->add(std::move(function));
}

}  // namespace tolvan::vesk::toolkit

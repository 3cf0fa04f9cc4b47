#include "terminal/event_process.hpp"

#include <utility>

namespace tolvan::vesk::tool {

event_process::event_process(int code_on_signal)
    : event_process([this, code_on_signal] { finish(code_on_signal); }) {}

event_process::event_process(std::function<void()> on_signal) {
    events->watch_fd({signals.descriptor()}, 0, [this, on_signal = std::move(on_signal)](auto, auto) {
        signals.take();
        on_signal();
    });
}

int event_process::run() {
    events->run();
    return status;
}

void event_process::finish(int code) {
    if (finished) return;
    finished = true;
    status = code;
    events->stop();
}

void event_process::finish(int code, const std::string& reason) {
    if (!finished) tell(reason);
    finish(code);
}

event_process::timer event_process::after(milliseconds delay, std::function<void()> callback) {
    return events->create_timer("vesk tool", delay, milliseconds(0), std::move(callback));
}

event_process::timer event_process::after(seconds delay, std::function<void()> callback) {
    return after(std::chrono::ceil<milliseconds>(delay), std::move(callback));
}

}  // namespace tolvan::vesk::tool

#include <memory>
#include <system_error>
#include <utility>

#include <uv.h>

#include <tolvan/vesk/toolkit/uv_event_loop.hpp>

namespace tolvan::vesk::toolkit {

// libuv keeps a handle for some time after the end of whoever has made it.
struct uv_event_loop::handle {
    uv_poll_t poll{};
    embedded_event_loop& inner;
    const failure_handler failed;

    static void on_readable(uv_poll_t* poll, int /*status*/, int /*events*/) {
        const auto* self = static_cast<const handle*>(poll->data);
        self->inner.turn(self->failed);
    }

    static void on_closed(uv_handle_t* closed) {
        const std::unique_ptr<handle> ended(static_cast<handle*>(closed->data));
    }
};

uv_event_loop::uv_event_loop(uv_loop_s* loop, failure_handler failed)
    : polled(start(loop, {.inner = *this, .failed = std::move(failed)})) {}

uv_event_loop::handle* uv_event_loop::start(uv_loop_s* loop, handle&& made) {
    auto started = std::make_unique<handle>(std::move(made));
    const int result = ::uv_poll_init(loop, &started->poll, started->inner.descriptor());
    if (result < 0) throw std::system_error(-result, std::generic_category(), "uv_poll_init");
    started->poll.data = started.get();
    ::uv_poll_start(&started->poll, UV_READABLE, handle::on_readable);
    return started.release();
}

uv_event_loop::~uv_event_loop() {
    ::uv_close(reinterpret_cast<uv_handle_t*>(&polled->poll), handle::on_closed);
}

}  // namespace tolvan::vesk::toolkit

#include <memory>
#include <utility>

#include <glib-unix.h>

#include <tolvan/vesk/toolkit/glib_event_loop.hpp>

namespace tolvan::vesk::toolkit {

namespace {

// GLib keeps it until the source's last call has returned.
struct readiness {
    embedded_event_loop& inner;
    const embedded_event_loop::failure_handler failed;

    static gboolean on_readable(gint /*fd*/, GIOCondition /*condition*/, gpointer data) {
        const auto* self = static_cast<const readiness*>(data);
        self->inner.turn(self->failed);
        return G_SOURCE_CONTINUE;
    }

    static void on_end(gpointer data) {
        const std::unique_ptr<readiness> ended(static_cast<readiness*>(data));
    }
};

}  // namespace

glib_event_loop::glib_event_loop(GMainContext* context, failure_handler failed)
    : source(::g_unix_fd_source_new(descriptor(), G_IO_IN)) {
    auto called = std::make_unique<readiness>(readiness{*this, std::move(failed)});
    ::g_source_set_callback(source, G_SOURCE_FUNC(readiness::on_readable), called.release(),
                            readiness::on_end);
    ::g_source_attach(source, context);
}

glib_event_loop::~glib_event_loop() {
    ::g_source_destroy(source);
    ::g_source_unref(source);
}

}  // namespace tolvan::vesk::toolkit

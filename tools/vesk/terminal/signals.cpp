#include "terminal/signals.hpp"

#include <cerrno>
#include <csignal>
#include <system_error>

#include <sys/signalfd.h>
#include <unistd.h>

namespace tolvan::vesk::tool {

namespace {

bool is_ignored(int number) {
    struct sigaction action {};
    return ::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

termination_signals::termination_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (!is_ignored(SIGHUP)) sigaddset(&signals, SIGHUP);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    held = wire::descriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (held.get() < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
}

void termination_signals::take() const {
    signalfd_siginfo taken;
    static_cast<void>(::read(held.get(), &taken, sizeof taken));
}

void let_writes_fail() {
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
}

void write_behind_others() {
    ::signal(SIGTTOU, SIG_IGN);
}

}  // namespace tolvan::vesk::tool

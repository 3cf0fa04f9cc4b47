#include "signals.hpp"

#include <cerrno>
#include <csignal>
#include <system_error>

#include <sys/signalfd.h>
#include <unistd.h>

namespace tolvan::vesk::tool {

termination_signals::termination_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    fd = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
}

termination_signals::~termination_signals() {
    ::close(fd);
}

}  // namespace tolvan::vesk::tool

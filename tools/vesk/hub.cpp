#include <cerrno>
#include <chrono>
#include <memory>
#include <system_error>

#include <fmt/format.h>
#include <poll.h>

#include <tolvan/relay/hub.hpp>

#include "commands.hpp"
#include "exit_code.hpp"
#include "session.hpp"
#include "signals.hpp"

namespace tolvan::vesk::tool {

namespace {

struct hub_options {
    bool allow_remote = false;
    seconds stats_interval{0};  ///< 0: no statistics
};

void tell_counters(relay::hub& hub) {
    const auto counters = hub.read_counters();
    tell(fmt::format("relayed {} messages ({} bytes)", counters.messages_in, counters.bytes_in));
}

// Whether a signal has come within `interval`; without one waits for ever.
bool wait_for_signal(const termination_signals& signals, seconds interval) {
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(interval);
    pollfd waited = {signals.descriptor(), POLLIN, 0};
    const int timeout = milliseconds.count() == 0 ? -1 : static_cast<int>(milliseconds.count());
    const int ready = ::poll(&waited, 1, timeout);
    if (ready < 0 && errno == EINTR) return wait_for_signal(signals, interval);
    if (ready < 0) throw std::system_error(errno, std::generic_category(), "poll");
    return ready > 0;
}

int run_hub(const common_options& common, const hub_options& options) {
    const termination_signals signals;
    relay::hub hub({common.pub_endpoint, common.sub_endpoint, options.allow_remote});
    tell("hub bound to " + hub.pub_endpoint() + " and " + hub.sub_endpoint());
    while (!wait_for_signal(signals, options.stats_interval))
        if (options.stats_interval.count() > 0) tell_counters(hub);
    return done;
}

}  // namespace

void add_hub_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<hub_options>();
    CLI::App& command = *app.add_subcommand("hub", "Run the hub in the foreground until SIGINT or SIGTERM");
    command.add_flag("--allow-remote", options->allow_remote,
                     "Bind to other than loopback or ipc; the protocol has no authentication");
    add_seconds(command, "--stats", options->stats_interval, "Report the relayed messages this often");
    command.callback(
        [&common, &chosen, options] { chosen = [&common, options] { return run_hub(common, *options); }; });
}

}  // namespace tolvan::vesk::tool

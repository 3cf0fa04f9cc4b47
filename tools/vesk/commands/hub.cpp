#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fmt/format.h>
#include <poll.h>

#include <tolvan/relay/accept_guard.hpp>
#include <tolvan/relay/hub.hpp>

#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "hub/hub_reports.hpp"
#include "hub/service_manager.hpp"
#include "hub/status_service.hpp"
#include "options/help_text.hpp"
#include "options/user_group.hpp"
#include "options/validators.hpp"
#include "terminal/signals.hpp"
#include "terminal/tell.hpp"

namespace tolvan::vesk::tool {

namespace {

using clock = std::chrono::steady_clock;

struct hub_options {
    bool allow_remote = false;
    std::string ipc_group;      ///< empty: nobody but the owner
    seconds stats_interval{0};  ///< 0: no statistics
    std::int64_t queue_bytes = relay::hub::default_queue_bytes;
    std::optional<std::string> status_address;
};

// Whether a signal has come; returns then, when a report waits, or at `until`.
bool wait_for_signal(const termination_signals& signals, const relay::hub& hub, clock::time_point until) {
    pollfd waited[] = {{signals.descriptor(), POLLIN, 0}, {hub.report_descriptor(), POLLIN, 0}};
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(until - clock::now());
    const auto timeout = std::clamp<std::int64_t>(rest.count(), 0, INT_MAX);
    if (::poll(waited, 2, static_cast<int>(timeout)) < 0 && errno != EINTR)
        throw std::system_error(errno, std::generic_category(), "poll");
    return waited[0].revents != 0;
}

/// Something that is due again an interval after it was done; with an interval of 0 never.
class periodic {
  public:
    explicit periodic(seconds wanted) : interval(std::chrono::ceil<clock::duration>(wanted)) { postpone(); }

    clock::time_point due() const { return next; }

    template <typename Action>
    void when_due(Action action) {
        if (clock::now() < next) return;
        action();
        postpone();
    }

  private:
    void postpone() { next = interval.count() == 0 ? clock::time_point::max() : clock::now() + interval; }

    clock::duration interval;
    clock::time_point next;
};

void tell_refusals(std::uint64_t& told) {
    const std::uint64_t refused = relay::refused_connections();
    if (refused > told)
        tell(fmt::format("refused {} connections for want of descriptors (ulimit -n)", refused - told));
    told = refused;
}

void report_until_told(const termination_signals& signals, relay::hub& hub, status_service* status,
                       service_manager& manager, seconds stats_interval, bool every_connection) {
    hub_reports reports(every_connection);
    hub_statistics statistics;
    periodic troubles(seconds(1)), stats(stats_interval), looks(seconds(status == nullptr ? 0 : 1)),
        signs_of_life(manager.watch_interval());
    std::uint64_t told_refusals = 0;
    while (!wait_for_signal(
        signals, hub,
        std::min({reports.due(), troubles.due(), stats.due(), looks.due(), signs_of_life.due()}))) {
        reports.take(hub.take_reports(), clock::now());
        troubles.when_due([&] {
            tell_what_was_missed();
            tell_refusals(told_refusals);
        });
        stats.when_due([&] { tell(statistics.line(hub.read_counters())); });
        looks.when_due([&] { status->look(); });
        signs_of_life.when_due([&] { manager.watch(hub.read_counters().turns); });
    }
}

std::optional<gid_t> group_of(const common_options& common, const hub_options& options) {
    if (options.ipc_group.empty()) return std::nullopt;
    if (!common.pub_endpoint.starts_with("ipc://") && !common.sub_endpoint.starts_with("ipc://"))
        throw std::runtime_error("--ipc-group is for ipc endpoints, and neither of " + common.hub() +
                                 " is one");
    return group_of_mine(options.ipc_group);
}

std::optional<http_listener> status_listener(const hub_options& options) {
    if (!options.status_address) return std::nullopt;
    return http_listener(*options.status_address, options.allow_remote);
}

std::unique_ptr<status_service> begin_status(const relay::hub& hub, const hub_options& options,
                                             std::optional<http_listener> listener) {
    if (!listener) return nullptr;
    tell("status page at " + listener->url());
    return std::make_unique<status_service>(hub, options.queue_bytes, std::move(*listener),
                                            options.allow_remote);
}

// The status page is bound before the hub is made: when it cannot be, nothing has begun.
int run_hub(const common_options& common, const hub_options& options) {
    const termination_signals signals;
    write_behind_others();
    auto listener = status_listener(options);
    relay::guard_descriptors(listener ? http_server::most_connections : 0);
    relay::hub hub({common.pub_endpoint, common.sub_endpoint, options.allow_remote, group_of(common, options),
                    options.queue_bytes});
    tell("hub bound to " + hub.pub_endpoint() + " and " + hub.sub_endpoint());
    const auto status = begin_status(hub, options, std::move(listener));
    tell(fmt::format("room for {} connections; a client has two", relay::room_for_connections()));
    service_manager manager;
    manager.say_ready();
    report_until_told(signals, hub, status.get(), manager, options.stats_interval, common.log_level >= 3);
    manager.say_stopping();
    return done;
}

}  // namespace

void add_hub_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<hub_options>();
    CLI::App& command =
        *app.add_subcommand("hub", "Run the hub in the foreground until SIGINT, SIGTERM or SIGHUP");
    command.add_flag("--allow-remote", options->allow_remote,
                     "Bind to other than loopback or ipc, for --status too; neither has authentication");
    command
        .add_option("--ipc-group", options->ipc_group,
                    "A group of yours, by name or number, whose members may connect to ipc endpoints")
        ->type_name("GROUP")
        ->default_str("its owner alone");
    command
        .add_option("--status", options->status_address,
                    "Serve a page about the hub there by HTTP, and /status.json, /metrics and /healthz; port "
                    "0 is any free one")
        ->type_name("ADDRESS:PORT")
        ->default_str("no page");
    add_seconds(command, "--stats", options->stats_interval,
                "Report traffic, connections, jams, memory and descriptors this often")
        ->default_str("never");
    command
        .add_option("--queue-bytes", options->queue_bytes,
                    "Memory that messages for one subscriber that does not keep up may take")
        ->transform(
            number_from("a number of bytes", relay::hub::largest_message, relay::hub::most_queue_bytes))
        ->type_name("BYTES")
        ->capture_default_str();
    add_examples(command,
                 {{"vesk hub --stats 60",
                   "Runs the hub for this user's programs, and says each minute what it has carried."},
                  {"vesk --pub-endpoint tcp://127.0.0.1:5556 --sub-endpoint tcp://127.0.0.1:5557 hub",
                   "Runs a hub for all users of this machine."},
                  {"vesk hub --status 127.0.0.1:8080", "Runs the hub with a status page for a browser."}});
    command.callback(
        [&common, &chosen, options] { chosen = [&common, options] { return run_hub(common, *options); }; });
}

}  // namespace tolvan::vesk::tool

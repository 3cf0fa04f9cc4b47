#include <algorithm>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <tolvan/vesk/toolkit/hub_presence.hpp>
#include <tolvan/vesk/toolkit/probe_pace.hpp>
#include <tolvan/vesk/toolkit/probe_topic.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/wire/sender.hpp>
#include <tolvan/wire/tap.hpp>

#include "bus/bus_environment.hpp"
#include "bus/session.hpp"
#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "observing/observer.hpp"
#include "options/help_text.hpp"
#include "options/validators.hpp"
#include "streams/standard_output.hpp"
#include "terminal/printable.hpp"
#include "terminal/quantities.hpp"

namespace tolvan::vesk::tool {

namespace {

using clock = std::chrono::steady_clock;

// As monitoring has them.
enum state : int { ok, warning, critical, unknown = monitoring_unknown };

constexpr const char* state_names[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

struct check_options {
    seconds timeout{5};
    std::optional<milliseconds> warn, critical;
    std::vector<std::string> request;  ///< server, command, and perhaps a payload

    std::string server_and_command() const { return request[0] + "." + request[1]; }
    std::string payload() const { return request.size() > 2 ? request[2] : ""; }
};

struct finding {
    state what = unknown;
    std::string text;
    std::optional<milliseconds> time{};
};

std::string limit_text(const std::optional<milliseconds>& limit) {
    return limit ? fmt::format("{:g}", limit->count()) : "";
}

finding judged(const std::string& who, milliseconds time, const check_options& options) {
    const std::string text = fmt::format("{} answered in {}", who, span(time));
    const auto beyond = [&](const auto& limit) { return limit && time > *limit; };
    if (beyond(options.critical)) return {critical, text + ", more than " + span(*options.critical), time};
    if (beyond(options.warn)) return {warning, text + ", more than " + span(*options.warn), time};
    return {ok, text, time};
}

// What stands behind a "|" is for machines.
std::string line_of(const finding& found, const check_options& options) {
    std::string text = printable(found.text);
    std::replace(text.begin(), text.end(), '|', '/');
    std::string line = fmt::format("{} - {}", state_names[found.what], text);
    if (found.time)
        line += fmt::format(" | rtt={:.3f}ms;{};{};0", found.time->count(), limit_text(options.warn),
                            limit_text(options.critical));
    return line;
}

std::string silent_hub(const common_options& common, const check_options& options) {
    return fmt::format("no answer from the hub at {} within {}", common.hub(), span(options.timeout));
}

/// Asks the hub, with probes at first until one is back; then everything is connected, and the next one
/// counts.
class hub_check {
  public:
    hub_check(const common_options& common, const check_options& given)
        : options(given),
          process(unknown),
          tap(process.loop(), tap_options(common),
              {.message = [this](const auto& message) { see(std::string(message.topic)); }}),
          sender(tap.shared_context(), common.pub_endpoint, speaks_ipv6()) {
        tap.subscribe(probe.name());
        deadline = process.after(options.timeout, [this, text = silent_hub(common, options)] {
            end({critical, text});
        });
        send_again();
    }

    finding run() {
        process.run();
        return result;
    }

  private:
    static constexpr toolkit::probe_topic::number trial = 0, counted = 1;

    void send_again() {
        sender.send(probe.with(trial), "");
        next = process.after(pace.next(), [this] { send_again(); });
    }

    void see(const std::string& topic) {
        const auto number = probe.number_in(topic);
        if (number == trial && next) measure();
        if (number == counted) end(judged("hub", clock::now() - sent_at, options));
    }

    void measure() {
        next.reset();
        sent_at = clock::now();
        sender.send(probe.with(counted), "");
    }

    void end(finding found) {
        result = std::move(found);
        process.finish(done);
    }

    const check_options& options;
    event_process process;
    const toolkit::probe_topic probe;
    wire::tap tap;
    wire::sender sender;
    event_process::timer deadline, next;
    toolkit::probe_pace pace;
    clock::time_point sent_at;
    finding result{unknown, "interrupted"};
};

/// Asks a server, when the hub has answered.
class server_check {
  public:
    server_check(const common_options& common, const check_options& given)
        : options(given),
          process(common, unknown),
          missing(silent_hub(common, options)),
          presence(process.shared_loop(), {.ready = [this] { ask(); }}) {
        deadline = process.after(options.timeout, [this] { end({critical, missing}); });
    }

    finding run() {
        process.run();
        return result;
    }

  private:
    void ask() {
        const std::string asked = options.server_and_command();
        missing = fmt::format("no answer from {} within {}", asked, span(options.timeout));
        sent_at = clock::now();
        client.request(options.request[0], options.request[1], options.payload(), true,
                       [this, asked](const std::string*, std::exception_ptr failure) {
                           if (failure) return end({critical, asked + " failed: " + text_of(failure)});
                           end(judged(asked, clock::now() - sent_at, options));
                       });
    }

    static std::string text_of(const std::exception_ptr& failure) {
        try {
            std::rethrow_exception(failure);
        } catch (const std::exception& error) {
            return error.what();
        }
    }

    void end(finding found) {
        result = std::move(found);
        process.finish(done);
    }

    const check_options& options;
    session process;
    std::string missing;  ///< at the end of the time
    v1::reqrep_client client;
    toolkit::hub_presence presence;
    session::timer deadline;
    clock::time_point sent_at;
    finding result{unknown, "interrupted"};
};

finding found(const common_options& common, const check_options& options) {
    try {
        if (options.request.empty()) return hub_check(common, options).run();
        return server_check(common, options).run();
    } catch (const std::exception& error) {
        return {unknown, error.what()};
    }
}

int run_check(const common_options& common, const check_options& options) {
    const finding result = found(common, options);
    try {
        put_out(line_of(result, options) + "\n");
    } catch (const std::system_error& error) {
        tell(error.what());
        return failed;  // as every command, though a monitoring system may take it for a warning
    }
    return result.what;
}

// Throws CLI::ValidationError.
void require_sense(const check_options& options) {
    if (options.warn && options.critical && *options.warn > *options.critical)
        throw CLI::ValidationError("--warn", "is more than --critical, and so could never be told");
    if (options.request.empty()) return;
    for (const auto& objection :
         {not_empty(options.request[0]), without(".:")(options.request[0]), without(":")(options.request[1]),
          options.request.size() > 2 ? is_json(options.request[2]) : ""})
        if (!objection.empty()) throw CLI::ValidationError("--request", objection);
}

}  // namespace

void add_check_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<check_options>();
    CLI::App& command = *app.add_subcommand(
        "check",
        "Say in one line for a monitoring system whether the hub answers; exit status 0 OK, 1 warning, "
        "2 critical, 3 unknown");
    add_seconds(command, "--timeout", options->timeout, "After this time without an answer it is critical")
        ->default_str("5");
    add_milliseconds(command, "--warn", options->warn, "A longer time of answer is a warning")
        ->default_str("none");
    add_milliseconds(command, "--critical", options->critical, "A longer time of answer is critical")
        ->default_str("none");
    verbatim(command.add_option("--request", options->request,
                                "Ask this server with this request instead, whose payload is one JSON value"))
        ->expected(2, 3)
        ->type_name("SERVER COMMAND [PAYLOAD]")
        ->default_str("a probe");
    add_examples(command,
                 {{"vesk check --warn 50 --critical 500", "Says whether the hub answers, and how fast."},
                  {"vesk check --request math add '[1, 2]'", "Asks a server instead."}});
    command.callback([&common, &chosen, options] {
        require_sense(*options);
        chosen = [&common, options] { return run_check(common, *options); };
    });
}

}  // namespace tolvan::vesk::tool

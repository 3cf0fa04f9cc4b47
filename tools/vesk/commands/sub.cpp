#include <chrono>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>
#include <unistd.h>

#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "observing/json_text.hpp"
#include "observing/line_format.hpp"
#include "observing/observer.hpp"
#include "options/help_text.hpp"
#include "options/validators.hpp"
#include "streams/output_queue.hpp"
#include "terminal/printable.hpp"

namespace tolvan::vesk::tool {

namespace {

struct sub_options {
    std::vector<std::string> topics;
    bool json = false;
    std::optional<std::string> format;
    unsigned long long count = 0;  ///< 0: no end
    seconds timeout{0};            ///< 0: none
};

/// Writes a message as a line of JSON.
void append_json(std::string& to, const wire::hub_message& message) {
    using std::chrono::milliseconds;
    const auto now = std::chrono::floor<milliseconds>(std::chrono::system_clock::now().time_since_epoch());
    to += '{';
    append_json_members(to, message);
    fmt::format_to(std::back_inserter(to), ",\"time_ms\":{}}}\n", now.count());
}

class sub_command {
  public:
    sub_command(const common_options& common, const sub_options& given)
        : options(given),
          format(given.format.value_or("%t %p")),
          process([this] { output.finish_soon(done); }),
          output(process, nonblocking_output(STDOUT_FILENO), "stdout"),
          view(process, common, given.topics,
               {.message = [this](const auto& message) { print(message); },
                .idle = [this] { output.flush(); }}) {
        if (options.timeout.count() > 0) deadline = process.after(options.timeout, [this] { give_up(); });
    }

    int run() {
        const int status = process.run();
        if (output.dropped() == 0) return status;
        tell(fmt::format("dropped {} messages: stdout did not take them as fast as they came",
                         output.dropped()));
        return failed;
    }

  private:
    void print(const wire::hub_message& message) {
        if (output.is_ending()) return;
        if (output.add([&](std::string& to) { append(to, message); })) ++printed;
        if (printed == options.count && options.count != 0) output.finish(done);
    }

    void append(std::string& to, const wire::hub_message& message) const {
        if (options.json) return append_json(to, message);
        if (!options.format && !on_terminal) return append_plain(to, message);
        format.append(to, {message, on_terminal});
        to += '\n';
    }

    static void append_plain(std::string& to, const wire::hub_message& message) {
        to += message.topic;
        to += ' ';
        to += message.data;
        to += '\n';
    }

    void give_up() {
        if (output.is_ending()) return;
        const bool waits_for_hub = printed == 0 && !view.hub_is_ready();
        tell(fmt::format("timed out: {} within {:g} s",
                         waits_for_hub ? view.what_is_missing() : fmt::format("{} messages", printed),
                         options.timeout.count()));
        output.finish_soon(timed_out);
    }

    const sub_options& options;
    const line_format format;
    const bool on_terminal = ::isatty(STDOUT_FILENO) == 1;
    event_process process;
    output_queue output;
    observer view;
    event_process::timer deadline;
    unsigned long long printed = 0;
};

// The objection to a format; empty when it is fine.
std::string objection_to_format(const std::string& text) {
    try {
        return static_cast<void>(line_format(text)), "";
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

}  // namespace

void add_sub_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<sub_options>();
    CLI::App& command = *app.add_subcommand("sub", "Print what is published, as TOPIC DATA");
    verbatim(command.add_option("TOPIC", options->topics,
                                "Topics; each stands for all that go on after it with a \".\""));
    CLI::Option* const json = command.add_flag(
        "--json", options->json,
        "Print one JSON object a line: topic, data (data_base64 when it is not UTF-8), age_ms, time_ms "
        "(Unix time)");
    verbatim(command.add_option("--format", options->format,
                                "How to print a message: %t topic, %p data, %l its length in bytes, %x it in "
                                "hex, %I time of receipt (ISO 8601), %U the same (Unix time), %a age in ms, "
                                "%%, \\n, \\t, \\\\"))
        ->check(objection_to_format)
        ->excludes(json)
        ->type_name("F")
        ->default_str("%t %p");
    command.add_option("--count", options->count, "End after so many messages")
        ->transform(number_from("a number of messages", 1ULL))
        ->type_name("N")
        ->default_str("no end");
    add_seconds(command, "--timeout", options->timeout, "Give up after this time, with exit status 3")
        ->default_str("no end");
    add_examples(command,
                 {{"vesk sub plant weather.rain",
                   "Prints what is published to plant, plant.pump, weather.rain and so on, until ^C."},
                  {"vesk sub --json --count 10 --timeout 60",
                   "Prints 10 messages of whatever topic as JSON; gives up after a minute."}});
    command.callback([&common, &chosen, options] {
        chosen = [&common, options] { return sub_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

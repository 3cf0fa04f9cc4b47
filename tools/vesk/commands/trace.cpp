#include <memory>
#include <optional>
#include <vector>

#include <fmt/format.h>
#include <unistd.h>

#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "observing/observer.hpp"
#include "observing/request_line.hpp"
#include "observing/request_pairs.hpp"
#include "observing/topic_set.hpp"
#include "options/help_text.hpp"
#include "options/validators.hpp"
#include "streams/output_queue.hpp"

namespace tolvan::vesk::tool {

namespace {

using clock = request_pairs::clock;

constexpr event_process::milliseconds reply_look_interval{50};

struct trace_options {
    std::vector<std::string> targets;
    bool json = false;
    unsigned long long count = 0;  ///< 0: no end
    std::optional<milliseconds> slow;
    std::optional<milliseconds> reply_timeout;

    std::chrono::duration<double> reply_patience() const {
        if (reply_timeout) return *reply_timeout;
        return request_pairs::usual_reply_patience;
    }
};

class trace_command {
  public:
    // Other languages give their reply topics names of their own, so nothing less than everything will do.
    trace_command(const common_options& common, const trace_options& given)
        : options(given),
          targets(given.targets),
          process([this] { output.finish_soon(done); }),
          output(process, nonblocking_output(STDOUT_FILENO), "stdout"),
          requests(options.reply_patience(), [this](const auto& request) { see(request); }),
          view(process, common, {},
               {.message = [this](const auto& message) { requests.feed(message, clock::now()); },
                .idle = [this] { output.flush(); }}) {
        tell_hints_about(options.targets);
        look();
    }

    int run() {
        const int status = process.run();
        tell_if_any(requests.in_flight(), "requests were still in flight");
        tell_if_any(requests.left_out(), "requests were not followed: too many were in flight");
        tell_if_any(output.dropped(), "lines were dropped: stdout did not take them as fast as they came");
        return output.dropped() > 0 ? failed : status;
    }

  private:
    void look() {
        requests.expire(clock::now());
        output.flush();
        next_look = process.after(reply_look_interval, [this] { look(); });
    }

    void see(const seen_request& request) {
        if (targets.contains(request.topic) && is_wanted(request)) print(request);
    }

    bool is_wanted(const seen_request& request) const {
        return !options.slow || request.has_failed() || request.to_answer >= *options.slow;
    }

    void print(const seen_request& request) {
        if (output.is_ending()) return;
        const auto asked_at = std::chrono::system_clock::now() - (clock::now() - request.asked_at);
        const std::string line =
            options.json ? as_json(request, asked_at) : as_line(request, asked_at, options.reply_patience());
        if (output.add([&](std::string& to) { to += line + "\n"; })) ++printed;
        if (printed == options.count && options.count != 0) output.finish(done);
    }

    static void tell_if_any(std::uint64_t count, const char* what) {
        if (count > 0) tell(fmt::format("{} {}", count, what));
    }

    const trace_options& options;
    const topic_set targets;
    event_process process;
    output_queue output;
    request_pairs requests;
    observer view;
    event_process::timer next_look;
    unsigned long long printed = 0;
};

}  // namespace

void add_trace_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<trace_options>();
    CLI::App& command = *app.add_subcommand(
        "trace", "Print a line for each request when its fate is known: how long it took, and how it ended");
    verbatim(
        command.add_option("SERVER[.COMMAND]", options->targets,
                           "Requests to these servers, or to these of their commands; all when left out"))
        ->check(without(":"));
    command.add_flag("--json", options->json, "Print one JSON object a line");
    command.add_option("--count", options->count, "End after so many lines")
        ->transform(number_from("a number of lines", 1ULL))
        ->type_name("N")
        ->default_str("no end");
    add_milliseconds(command, "--slow", options->slow,
                     "Only requests that took so long, and those that failed")
        ->default_str("all");
    add_milliseconds(command, "--reply-timeout", options->reply_timeout,
                     "How long clients wait for the reply after an acknowledgement")
        ->default_str("30000");
    add_examples(command,
                 {{"vesk trace math.add", "Prints the fate of each request to add of the server math."},
                  {"vesk trace --slow 500 --json", "Prints what took over half a second, or failed."}});
    command.callback([&common, &chosen, options] {
        chosen = [&common, options] { return trace_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

#include <csignal>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <sys/wait.h>

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/opaque_json_block.hpp>
#include <tolvan/vesk/toolkit/hub_presence.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>

#include "bus/child_process.hpp"
#include "bus/session.hpp"
#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "options/help_text.hpp"
#include "options/validators.hpp"
#include "terminal/hub_notes.hpp"

namespace tolvan::vesk::tool {

namespace {

using sedes::v1::opaque_json_block;
using v1::reqrep_server;

constexpr std::size_t most_reply = child_process::most_output - 1024;  // there is an envelope around it
constexpr std::size_t most_programs = 64;                              // at a time; more requests wait

struct serve_options {
    std::string id;
    std::string command;
    bool no_reply = false;
    bool echo = false;
    seconds program_timeout{0};  ///< 0: none
    std::vector<std::string> program;
};

std::string without_trailing_breaks(const std::string& text) {
    const std::size_t last = text.find_last_not_of("\r\n");
    return last == std::string::npos ? "" : text.substr(0, last + 1);
}

// Why the program has failed. Empty when it has not.
std::string failure_of(const child_process::outcome& ended) {
    if (!ended.given_up_for.empty()) return ended.given_up_for;
    if (WIFSIGNALED(ended.wait_status))
        return "the program was killed by signal " + std::to_string(WTERMSIG(ended.wait_status));
    if (WEXITSTATUS(ended.wait_status) != 0)
        return "the program exited with status " + std::to_string(WEXITSTATUS(ended.wait_status));
    return {};
}

// The same where a reply is wanted.
std::string failure_to_reply(const child_process::outcome& ended) {
    std::string failure = failure_of(ended);
    if (failure.empty() && without_trailing_breaks(ended.standard_output).empty())
        return "the program gave no output";
    return failure;
}

Variant parsed(const std::string& output) {
    try {
        return Variant::fromJson(output);
    } catch (const sedes::v1::bad_deserialization_source& error) {
        throw std::runtime_error(std::string("the program's output is not JSON: ") + error.what());
    }
}

// The JSON text of the reply, as it will be sent. Throws std::runtime_error with the text of the NACK when
// it cannot be sent. `origin` names the value.
std::string reply_text(const Variant& value, const std::string& origin) {
    if (value.is_null()) throw std::runtime_error(origin + " is null, which cannot be a reply");
    std::string text = value.toJson();
    if (text.size() > most_reply)
        throw std::runtime_error(fmt::format(
            "{} makes a reply of {} bytes, which is larger than a message may be", origin, text.size()));
    return text;
}

// Requests that wait until fewer programs run.
class waiting_list {
  public:
    struct entry {
        reqrep_server::request request;
        std::string payload;
    };

    bool empty() const { return entries.empty(); }

    // Throws std::runtime_error when the list is full.
    void add(entry&& added) {
        if (entries.size() == most_entries || bytes + added.payload.size() > most_bytes)
            throw std::runtime_error(fmt::format(
                "too many requests are waiting: {}, with payloads of {} bytes", entries.size(), bytes));
        bytes += added.payload.size();
        entries.push_back(std::move(added));
    }

    entry take() {
        entry first = std::move(entries.front());
        entries.pop_front();
        bytes -= first.payload.size();
        return first;
    }

  private:
    static constexpr std::size_t most_entries = 1000;
    static constexpr std::size_t most_bytes = 64 * 1024 * 1024;

    std::deque<entry> entries;
    std::size_t bytes = 0;
};

class serve_command {
  public:
    serve_command(const common_options& common, const serve_options& given)
        : options(given), process(common, done), notes(process, common, hub_notes::detail::all) {
        std::signal(SIGCHLD, SIG_DFL);  // whoever started this may have it ignored; then no status is kept
        server.set_uuid(options.id);
        server.set_command_handler<opaque_json_block>(
            options.command, !options.no_reply,
            [this](const reqrep_server::request& request, const opaque_json_block& payload) {
                handle(request, payload);
            });
        presence.emplace(process.shared_loop(),
                         toolkit::hub_presence::callbacks{.ready = [this] { notes.ready(); },
                                                          .lost = [this] { notes.lost(); },
                                                          .back = [this] { notes.ready(); }});
    }

    int run() { return process.run(); }

  private:
    struct running_program {
        std::unique_ptr<child_process> child;
        session::timer limit;
    };
    using place = std::list<running_program>::iterator;

    void handle(const reqrep_server::request& request, const opaque_json_block& payload) {
        try {
            options.echo ? echo_back(request, payload.variant()) : accept({request, payload.to_string()});
        } catch (const std::exception& failure) {
            refuse(request, failure);
        }
    }

    void echo_back(const reqrep_server::request& request, const Variant& payload) const {
        if (!options.no_reply) request.reply(reply_text(payload, "the payload"));
    }

    void accept(waiting_list::entry&& asked) {
        if (programs.size() == most_programs) return waiting.add(std::move(asked));
        run_program(asked.request, asked.payload);
    }

    void run_program(const reqrep_server::request& request, const std::string& payload) {
        const auto started = programs.emplace(programs.end());
        try {
            started->child = std::make_unique<child_process>(
                process.loop(), options.program, payload,
                [this, started, request](const child_process::outcome& ended) {
                    end(started, request, ended);
                });
            if (options.program_timeout.count() > 0) limit(*started);
        } catch (...) {
            programs.erase(started);
            throw;
        }
    }

    void limit(running_program& program) {
        program.limit = process.after(options.program_timeout, [this, &program] {
            program.child->give_up(
                fmt::format("the program ran longer than {:g} s", options.program_timeout.count()));
        });
    }

    void end(place ended, const reqrep_server::request& request, const child_process::outcome& outcome) {
        const auto finished = std::move(*ended);  // whose callback this is, until it returns
        programs.erase(ended);
        answer(request, outcome);
        run_waiting();
    }

    void run_waiting() {
        while (!waiting.empty() && programs.size() < most_programs) {
            const auto [request, payload] = waiting.take();
            try {
                run_program(request, payload);
            } catch (const std::exception& failure) {
                refuse(request, failure);
            }
        }
    }

    void answer(const reqrep_server::request& request, const child_process::outcome& ended) const {
        const std::string failure = options.no_reply ? failure_of(ended) : failure_to_reply(ended);
        if (!failure.empty()) return fail(request, failure, ended);
        if (!options.no_reply) reply(request, ended.standard_output);
    }

    // Whatever is wrong with one reply, the server goes on.
    void reply(const reqrep_server::request& request, const std::string& output) const {
        try {
            request.reply(reply_text(parsed(output), "the program's output"));
        } catch (const std::exception& failure) {
            refuse(request, failure);
        }
    }

    void refuse(const reqrep_server::request& request, const std::exception& failure) const {
        report(failure.what());
        request.fail(failure);
    }

    // A program that has ended by itself may tell the client what was wrong in its own words.
    void fail(const reqrep_server::request& request, const std::string& failure,
              const child_process::outcome& ended) const {
        const std::string words = without_trailing_breaks(ended.standard_error);
        report(words.empty() ? failure : failure + ": " + words);
        if (options.no_reply) return;
        request.fail(std::runtime_error(words.empty() || !ended.given_up_for.empty() ? failure : words));
    }

    void report(const std::string& failure) const {
        tell(options.id + "." + options.command + ": " + failure);
    }

    const serve_options& options;
    session process;
    hub_notes notes;
    std::list<running_program> programs;
    waiting_list waiting;
    reqrep_server server;
    std::optional<toolkit::hub_presence> presence;
};

}  // namespace

void add_serve_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<serve_options>();
    CLI::App& command = *app.add_subcommand(
        "serve", "Answer requests by running a program for each, at most 64 at a time; 1000 more wait");
    verbatim(command.add_option("ID", options->id, "Identity of the server"))
        ->required()
        ->check(without(".:"))
        ->check(not_empty);
    verbatim(command.add_option("COMMAND", options->command, "Command to answer"))
        ->required()
        ->check(without(":"));
    command.add_flag("--no-reply", options->no_reply,
                     "Acknowledge requests only; the program's output is dropped");
    auto* const echo =
        command.add_flag("--echo", options->echo, "Reply with the payload instead of running a program");
    auto* const program = verbatim(command.add_option(
        "PROGRAM", options->program, "Behind \"--\": gets the payload on stdin, gives the reply on stdout"));
    auto* const limit = add_seconds(command, "--program-timeout", options->program_timeout,
                                    "Kill a program that runs longer, with whatever it has started");
    limit->default_str("no limit");
    echo->excludes(program)->excludes(limit);
    add_examples(command, {{"vesk serve clerk upper -- tr a-z A-Z",
                            "Replies to each request with its payload in capital letters."},
                           {"vesk serve mirror look --echo",
                            "Replies to each request with its payload, for trials."}});
    command.callback([&common, &chosen, options] {
        if (!options->echo && options->program.empty())
            throw CLI::ValidationError("serve", "needs --echo, or \"--\" and a PROGRAM");
        chosen = [&common, options] { return serve_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

#include <csignal>
#include <deque>
#include <list>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include <sys/wait.h>

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/opaque_json_block.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>

#include "child_process.hpp"
#include "commands.hpp"
#include "echo.hpp"
#include "exit_code.hpp"
#include "validators.hpp"

namespace tolvan::vesk::tool {

namespace {

using sedes::v1::opaque_json_block;
using v1::reqrep_server;

constexpr const char* too_large = "the program's output is larger than a message may be";
constexpr std::size_t most_reply = child_process::most_output - 1024;  // there is an envelope around it
constexpr std::size_t most_programs = 64;                              // at a time; more requests wait

struct serve_options {
    std::string id;
    std::string command;
    bool no_reply = false;
    bool echo = false;
    std::vector<std::string> program;
};

std::string without_trailing_breaks(const std::string& text) {
    const std::size_t last = text.find_last_not_of("\r\n");
    return last == std::string::npos ? "" : text.substr(0, last + 1);
}

std::string how_it_ended(int wait_status) {
    if (WIFSIGNALED(wait_status))
        return "the program was killed by signal " + std::to_string(WTERMSIG(wait_status));
    if (WEXITSTATUS(wait_status) != 0)
        return "the program exited with status " + std::to_string(WEXITSTATUS(wait_status));
    return "the program gave no output";
}

bool succeeded(const child_process::outcome& ended) {
    return WIFEXITED(ended.wait_status) && WEXITSTATUS(ended.wait_status) == 0;
}

std::string failure_of(const child_process::outcome& ended) {
    if (ended.too_much_output) return too_large;
    const std::string errors = without_trailing_breaks(ended.standard_error);
    return errors.empty() ? how_it_ended(ended.wait_status) : errors;
}

Variant parsed(const std::string& output) {
    try {
        return Variant::fromJson(output);
    } catch (const sedes::v1::bad_deserialization_source& error) {
        throw std::runtime_error(std::string("the program's output is not JSON: ") + error.what());
    }
}

// The JSON text of the reply, as it will be sent. Throws std::runtime_error with the text of the NACK when
// there is none.
std::string reply_of(const child_process::outcome& ended) {
    if (!succeeded(ended) || without_trailing_breaks(ended.standard_output).empty())
        throw std::runtime_error(failure_of(ended));
    const Variant reply = parsed(ended.standard_output);
    if (reply.is_null()) throw std::runtime_error("the program's output is null, which cannot be a reply");
    std::string text = reply.toJson();
    if (text.size() > most_reply) throw std::runtime_error(too_large);
    return text;
}

class serve_command {
  public:
    serve_command(const common_options& common, const serve_options& given)
        : options(given), process(common, done) {
        std::signal(SIGCHLD, SIG_DFL);  // whoever started this may have it ignored; then no status is kept
        server.set_uuid(options.id);
        server.set_command_handler<opaque_json_block>(
            options.command, !options.no_reply,
            [this](reqrep_server::request&& request, opaque_json_block&& payload) {
                options.echo ? echo_back(request, payload) : accept(std::move(request), payload.to_string());
            });
        probe = std::make_unique<readiness>(process, [] { tell("ready"); });
    }

    int run() { return process.run(); }

  private:
    void echo_back(const reqrep_server::request& request, const opaque_json_block& payload) const {
        if (options.no_reply) return;
        if (payload.variant().is_null())
            throw std::runtime_error("the payload is null, which cannot be a reply");
        request.reply(payload.to_string());
    }

    // What goes wrong before the program runs is thrown to the client, unless the request had to wait.
    void accept(reqrep_server::request&& request, std::string payload) {
        if (programs.size() < most_programs) return run_program(request, payload);
        waiting.emplace_back(std::move(request), std::move(payload));
    }

    void run_program(const reqrep_server::request& request, const std::string& payload) {
        const auto place = programs.emplace(programs.end());
        try {
            *place = std::make_unique<child_process>(
                process.loop(), options.program, payload,
                [this, place, request](const child_process::outcome& ended) {
                    const auto finished = std::move(*place);  // whose callback this is, until it returns
                    programs.erase(place);
                    answer(request, ended);
                    run_waiting();
                });
        } catch (...) {
            programs.erase(place);
            throw;
        }
    }

    void run_waiting() {
        while (!waiting.empty() && programs.size() < most_programs) {
            const auto [request, payload] = std::move(waiting.front());
            waiting.pop_front();
            try {
                run_program(request, payload);
            } catch (const std::exception& failure) {
                request.fail(failure);
            }
        }
    }

    // Whatever is wrong with one reply, the server goes on.
    void answer(const reqrep_server::request& request, const child_process::outcome& ended) const {
        if (options.no_reply) {
            if (!succeeded(ended)) tell(failure_of(ended));
            return;
        }
        try {
            request.reply(reply_of(ended));
        } catch (const std::exception& failure) {
            request.fail(failure);
        }
    }

    const serve_options& options;
    session process;
    std::list<std::unique_ptr<child_process>> programs;
    std::deque<std::pair<reqrep_server::request, std::string>> waiting;
    reqrep_server server;
    std::unique_ptr<readiness> probe;
};

}  // namespace

void add_serve_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<serve_options>();
    CLI::App& command =
        *app.add_subcommand("serve", "Answer requests by running a program for each, at most 64 at a time");
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
    echo->excludes(program);
    command.callback([&common, &chosen, options] {
        if (!options->echo && options->program.empty())
            throw CLI::ValidationError("serve", "needs --echo, or \"--\" and a PROGRAM");
        chosen = [&common, options] { return serve_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

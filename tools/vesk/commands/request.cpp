#include <iostream>
#include <memory>

#include <unistd.h>

#include <tolvan/vesk/v1/reqrep_client.hpp>

#include "bus/echo.hpp"
#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "options/validators.hpp"
#include "terminal/printable.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr seconds hub_patience{5};

struct request_options {
    std::string target;
    std::string command;
    std::string payload;
    bool no_reply = false;
    long long reply_timeout_ms = 0;  ///< 0: the bus's own
};

class request_command {
  public:
    request_command(const common_options& common, const request_options& given)
        : options(given), process(common, failed), probe(process, [this] { send(); }) {
        hub_deadline = process.after(hub_patience, [this, hub = common.hub()] {
            process.finish(timed_out, "no answer from the hub at " + hub + " within 5 s");
        });
    }

    int run() { return process.run(); }

  private:
    void send() {
        hub_deadline.reset();
        if (options.reply_timeout_ms > 0)
            v1::reqrep_client::set_timeout(std::chrono::milliseconds(options.reply_timeout_ms));
        client.request(options.target, options.command, options.payload, !options.no_reply,
                       [this](const std::string* reply, std::exception_ptr failure) {
                           if (failure) return fail(failure);
                           if (reply != nullptr) std::cout << shown_on(STDOUT_FILENO, *reply) << std::endl;
                           if (!std::cout) return process.finish(failed, "could not write to stdout");
                           process.finish(done);
                       });
    }

    void fail(const std::exception_ptr& failure) {
        try {
            std::rethrow_exception(failure);
        } catch (const v1::reqrep_client::request_timeout& timeout) {
            process.finish(timed_out, timeout.what());
        } catch (const std::exception& error) {
            process.finish(failed, error.what());
        }
    }

    const request_options& options;
    session process;
    v1::reqrep_client client;
    readiness probe;
    session::timer hub_deadline;
};

}  // namespace

void add_request_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<request_options>();
    CLI::App& command = *app.add_subcommand("request", "Send one request and print the reply");
    verbatim(command.add_option("TARGET", options->target, "Identity of the server"))
        ->required()
        ->check(without(":"))
        ->check(not_empty);
    verbatim(command.add_option("COMMAND", options->command, "Command of the server"))
        ->required()
        ->check(without(":"));
    verbatim(command.add_option("PAYLOAD", options->payload, "One JSON value; none when left out"))
        ->check(is_json);
    command.add_flag("--no-reply", options->no_reply, "Be content with the server's acknowledgement");
    command
        .add_option("--reply-timeout", options->reply_timeout_ms,
                    "How long to wait for the reply after the acknowledgement")
        ->check(CLI::PositiveNumber)
        ->type_name("MS");
    command.callback([&common, &chosen, options] {
        chosen = [&common, options] { return request_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

#include <memory>
#include <optional>
#include <system_error>

#include <fmt/format.h>
#include <unistd.h>

#include <tolvan/relay/hub.hpp>
#include <tolvan/vesk/toolkit/hub_presence.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>

#include "bus/answer_watch.hpp"
#include "bus/session.hpp"
#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "options/help_text.hpp"
#include "options/validators.hpp"
#include "streams/standard_output.hpp"
#include "streams/whole_input.hpp"
#include "terminal/hub_notes.hpp"
#include "terminal/printable.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr seconds hub_patience{5};
constexpr seconds answer_patience{15};  // the bus's own, as the next
constexpr seconds usual_reply_patience{30};
constexpr std::size_t largest_payload = relay::hub::largest_message - 1024;  // there is an envelope around it

struct request_options {
    std::string target;
    std::string command;
    std::string payload;
    bool no_reply = false;
    long long reply_timeout_ms = 0;  ///< 0: the bus's own
    seconds timeout{0};              ///< of the whole; 0: none
};

// What follows a PAYLOAD that says where the payload is; `name` says it for people.
std::string read_payload(const std::string& name, const std::string& text) {
    if (text.size() > largest_payload)
        throw std::runtime_error(
            fmt::format("{} has more than {} bytes, which is the most that the hub carries in a request",
                        name, largest_payload));
    const std::string objection = objection_to_json(text);
    if (!objection.empty()) throw CLI::ValidationError("PAYLOAD", name + " is not JSON: " + objection);
    return text;
}

std::string payload_of(const std::string& given) {
    if (given == "-") return read_payload("stdin", whole_input(STDIN_FILENO, largest_payload));
    if (!given.starts_with('@')) return given;
    const std::string file = given.substr(1);
    return read_payload("'" + file + "'", whole_file(file, largest_payload));
}

std::string is_payload(const std::string& value) {
    return value == "-" || value.starts_with('@') ? "" : is_json(value);
}

class request_command {
  public:
    request_command(const common_options& common, const request_options& given)
        : options(given),
          hub(common.hub()),
          process(common, failed),
          notes(process, common, hub_notes::detail::waiting_only),
          answers([this](auto answered) { note_answer(answered); }),
          presence(process.shared_loop(), {.ready = [this] { answers.start([this] { send(); }); }}) {
        const seconds patience = options.timeout.count() > 0 ? options.timeout : hub_patience;
        deadline = process.after(patience, [this, patience] { give_up(patience); });
    }

    int run() { return process.run(); }

  private:
    void send() {
        notes.ready();
        if (options.timeout.count() == 0) deadline.reset();
        if (options.reply_timeout_ms > 0)
            v1::reqrep_client::set_timeout(std::chrono::milliseconds(options.reply_timeout_ms));
        sent_at = process.loop().now();
        id = client.request(options.target, options.command, options.payload, !options.no_reply,
                            [this](const std::string* reply, std::exception_ptr failure) {
                                failure ? fail(failure) : succeed(reply);
                            });
    }

    void note_answer(answer_watch::request_id answered) {
        if (answered == id && !acknowledged_after) acknowledged_after = process.loop().now() - *sent_at;
    }

    // What is thrown here would end in the bus.
    void succeed(const std::string* reply) try {
        if (reply != nullptr) put_out(shown_on(STDOUT_FILENO, *reply) + "\n");
        process.finish(done);
    } catch (const std::system_error& error) {
        process.finish(failed, error.what());
    }

    void fail(const std::exception_ptr& failure) {
        try {
            std::rethrow_exception(failure);
        } catch (const v1::reqrep_client::request_timeout&) {
            give_up(acknowledged_after ? reply_patience() : answer_patience);
        } catch (const std::exception& error) {
            process.finish(failed, error.what());
        }
    }

    seconds reply_patience() const {
        if (options.reply_timeout_ms == 0) return usual_reply_patience;
        return std::chrono::milliseconds(options.reply_timeout_ms);
    }

    void give_up(seconds patience) {
        process.finish(timed_out, fmt::format("{} within {:g} s", what_is_missing(), patience.count()));
    }

    std::string what_is_missing() const {
        if (!sent_at) return "no answer from the hub at " + hub;
        const std::string name = options.target + "." + options.command;
        if (!presence.is_there()) return name + ": lost the hub at " + hub + ", and no answer";
        if (!acknowledged_after) return name + ": no server of this identity and command answered";
        return fmt::format("{}: acknowledged after {} ms, but no reply", name, acknowledged_after->count());
    }

    const request_options& options;
    const std::string hub;
    session process;
    hub_notes notes;
    v1::reqrep_client client;
    answer_watch answers;
    toolkit::hub_presence presence;  ///< behind the subscriptions that the hub is to know
    session::timer deadline;
    answer_watch::request_id id = 0;
    std::optional<session::milliseconds> sent_at;
    std::optional<session::milliseconds> acknowledged_after;
};

}  // namespace

void add_request_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<request_options>();
    CLI::App& command = *app.add_subcommand("request", "Send one request and print the reply");
    verbatim(command.add_option("TARGET", options->target, "Identity of the server"))
        ->required()
        ->check(without(".:"))
        ->check(not_empty);
    verbatim(command.add_option("COMMAND", options->command, "Command of the server"))
        ->required()
        ->check(without(":"));
    verbatim(command.add_option("PAYLOAD", options->payload,
                                "One JSON value, \"-\" for that on stdin, or \"@FILE\" for that in a file; "
                                "none when left out"))
        ->check(is_payload);
    command.add_flag("--no-reply", options->no_reply, "Be content with the server's acknowledgement");
    command
        .add_option("--reply-timeout", options->reply_timeout_ms,
                    "How long to wait for the reply after the acknowledgement")
        ->transform(number_from("a number of milliseconds", 1LL))
        ->type_name("MS")
        ->default_str("30000");
    add_seconds(command, "--timeout", options->timeout,
                "Give up after this time, whatever is missing; else the hub has 5 s, the acknowledgement "
                "15 s, and the reply what --reply-timeout says")
        ->default_str("none");
    add_examples(
        command,
        {{"vesk request math add '[1, 2, 39]'", "Prints the reply of the server math to its command add."},
         {"vesk request pump stop --no-reply", "Ends with 0 when the server has acknowledged the request."}});
    command.callback([&common, &chosen, options] {
        options->payload = payload_of(options->payload);
        chosen = [&common, options] { return request_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

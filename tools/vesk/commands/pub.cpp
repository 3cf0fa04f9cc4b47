#include <memory>
#include <optional>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include <tolvan/relay/hub.hpp>

#include "bus/confirmed_publisher.hpp"
#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "terminal/input_lines.hpp"

namespace tolvan::vesk::tool {

namespace {

struct pub_options {
    confirmed_publisher::options publishing;
    std::optional<std::string> data;  ///< without it the lines of stdin are published
};

/// Why the hub cannot carry that line; empty when it can.
std::string objection_to(const std::string& line) {
    if (line.size() > relay::hub::largest_message) return "is longer than 16 MiB";
    return line.find('\0') == std::string::npos ? "" : "has a NUL byte";
}

class pub_command {
  public:
    pub_command(const common_options& common, const pub_options& given)
        : options(given),
          hub(common.hub()),
          process(common, failed),
          input(process.loop(), STDIN_FILENO, relay::hub::largest_message),
          publisher(process, common, given.publishing,
                    {.progress = [this] { publish_more(); },
                     .lost = [this](const auto& numbers) { note_loss(numbers); },
                     .gave_up = [this](bool hub_answers) { give_up(hub_answers); }}) {}

    int run() {
        const int status = process.run();
        lost.append(publisher.under_way());
        if (lost.count() > 0) tell_unconfirmed();
        return status;
    }

  private:
    void publish_more() {
        while (!end_of_messages && publisher.has_room())
            if (!publish_next()) return input.await_more([this] { publish_more(); });
        if (!end_of_messages || !publisher.is_done()) return;
        if (!refusal.empty()) return process.finish(failed, refusal);
        process.finish(lost.count() == 0 ? done : failed);
    }

    // False when there is nothing to publish yet.
    bool publish_next() {
        std::optional<std::string> next = options.data ? options.data : input.next();
        end_of_messages = options.data || (!next && input.at_end());
        if (next) publish_or_refuse(std::move(*next));
        return next || end_of_messages;
    }

    // What was published before a refused line is waited for, as at the end.
    void publish_or_refuse(std::string data) {
        const std::string objection = objection_to(data);
        if (objection.empty()) return publisher.publish({++published, std::move(data)});
        refusal = fmt::format("line {} {}, which the hub cannot carry; published up to there", published + 1,
                              objection);
        end_of_messages = true;
    }

    void note_loss(const number_ranges& numbers) {
        if (options.publishing.resend)
            tell(fmt::format("sending {} again", named(numbers)));
        else
            lost.append(numbers);
    }

    void give_up(bool hub_answers) {
        const double patience = options.publishing.patience.count();
        if (hub_answers)
            process.finish(
                failed, fmt::format("the hub at {} answers, but has relayed nothing of this for {:g} s", hub,
                                    patience));
        else
            process.finish(timed_out,
                           fmt::format("no answer from the hub at {} within {:g} s", hub, patience));
    }

    void tell_unconfirmed() const {
        tell(fmt::format("{} of {} messages are not confirmed: {}", lost.count(), published, named(lost)));
    }

    std::string named(const number_ranges& numbers) const {
        if (options.data) return "the message";
        return (numbers.count() == 1 ? "line " : "lines ") + numbers.text();
    }

    const pub_options& options;
    const std::string hub;
    session process;
    input_lines input;
    number_ranges lost;
    std::string refusal;  ///< says which line was refused, and why
    std::uint64_t published = 0;
    bool end_of_messages = false;
    confirmed_publisher publisher;
};

}  // namespace

void add_pub_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<pub_options>();
    CLI::App& command = *app.add_subcommand(
        "pub", "Publish DATA, or each line of stdin; done when every message has come back from the hub");
    verbatim(command.add_option("TOPIC", options->publishing.topic,
                                "Topic; what stands before the first \":\" is not sent"))
        ->required();
    verbatim(command.add_option("DATA", options->data, "One message; without it each line of stdin is one"));
    add_seconds(command, "--timeout", options->publishing.patience,
                "Give up when the hub has not answered for so long")
        ->default_str("5");
    command.add_flag("--resend", options->publishing.resend,
                     "Send again what has not come back; around a break of the connection lines may come "
                     "twice, and in another order");
    command.callback([&common, &chosen, options] {
        chosen = [&common, options] { return pub_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

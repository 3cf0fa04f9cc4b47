#include <memory>
#include <optional>
#include <utility>

#include <unistd.h>

#include <tolvan/relay/hub.hpp>

#include "bus/publication_run.hpp"
#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "options/help_text.hpp"
#include "streams/input_lines.hpp"
#include "streams/whole_input.hpp"

namespace tolvan::vesk::tool {

namespace {

struct pub_options {
    std::string topic;
    confirmed_publisher::options publishing;
    std::optional<std::string> data;  ///< without it stdin is published
    bool whole = false;
};

// One text, which is there already.
class one_message : public message_source {
  public:
    one_message(std::string topic, std::string data) : message({1, std::move(topic), std::move(data)}) {}

    std::optional<numbered_message> next() override { return std::exchange(message, std::nullopt); }
    bool at_end() const override { return !message; }
    void await_more(std::function<void()>) override {}
    std::string named(const number_ranges&) const override { return "the message"; }

  private:
    std::optional<numbered_message> message;
};

class lines_of_stdin : public message_source {
  public:
    lines_of_stdin(event_loop_v1& loop, std::string topic_of_all)
        : input(loop, STDIN_FILENO, relay::hub::largest_message), topic(std::move(topic_of_all)) {}

    std::optional<numbered_message> next() override {
        std::optional<std::string> line = input.next();
        if (!line) return std::nullopt;
        refuse_unless_carried("line " + std::to_string(++taken), *line);
        return numbered_message{taken, topic, std::move(*line)};
    }

    bool at_end() const override { return input.at_end(); }

    void await_more(std::function<void()> callback) override { input.await_more(std::move(callback)); }

    std::string named(const number_ranges& numbers) const override {
        return (numbers.count() == 1 ? "line " : "lines ") + numbers.text();
    }

  private:
    input_lines input;
    const std::string topic;
    std::uint64_t taken = 0;
};

// Who types at a terminal is told what becomes of it.
void tell_what_is_read(bool whole) {
    if (::isatty(STDIN_FILENO) != 1) return;
    tell(whole ? "publishes all that is typed here as one message; ^D ends it"
               : "publishes each line that is typed here; ^D ends it");
}

std::string whole_stdin() {
    std::string text = whole_input(STDIN_FILENO, relay::hub::largest_message);
    refuse_unless_carried("stdin", text);
    return text;
}

std::unique_ptr<message_source> source_of(const pub_options& options, event_loop_v1& loop) {
    if (options.data) return std::make_unique<one_message>(options.topic, *options.data);
    return std::make_unique<lines_of_stdin>(loop, options.topic);
}

int run_pub(const common_options& common, pub_options& options) {
    if (!options.data) tell_what_is_read(options.whole);
    if (options.whole) options.data = whole_stdin();
    options.publishing.seen = {std::string(numbered_message{1, options.topic, ""}.sent_topic())};
    session process(common, failed);
    const auto source = source_of(options, process.loop());
    return publication_run(process, common, options.publishing, *source).run();
}

}  // namespace

void add_pub_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<pub_options>();
    CLI::App& command = *app.add_subcommand(
        "pub", "Publish DATA, or each line of stdin; done when every message has come back from the hub");
    verbatim(
        command.add_option("TOPIC", options->topic, "Topic; what stands before the first \":\" is not sent"))
        ->required();
    auto* const data = verbatim(
        command.add_option("DATA", options->data, "One message; without it each line of stdin is one"));
    command.add_flag("--whole", options->whole, "All of stdin is one message, of 16 MiB at most")
        ->excludes(data);
    add_seconds(command, "--timeout", options->publishing.patience,
                "Give up when nothing has come back from the hub for so long")
        ->default_str("5");
    command.add_flag("--resend", options->publishing.resend,
                     "Send again what has not come back; around a break of the connection lines may come "
                     "twice, and in another order");
    add_examples(command,
                 {{R"(vesk pub plant.pump '{"on":true}')", "Publishes one message."},
                  {"seq 1000 | vesk pub plant.lines --resend",
                   "Publishes 1000 messages, and sends again what a break of the connection takes."}});
    command.callback(
        [&common, &chosen, options] { chosen = [&common, options] { return run_pub(common, *options); }; });
}

}  // namespace tolvan::vesk::tool

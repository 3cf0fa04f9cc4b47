#include <memory>
#include <optional>
#include <stdexcept>

#include <fmt/format.h>
#include <unistd.h>

#include "commands.hpp"
#include "echo.hpp"
#include "exit_code.hpp"
#include "input_lines.hpp"

namespace tolvan::vesk::tool {

namespace {

// A publisher that runs ahead of the hub loses messages silently. So every 200 messages a marker follows
// them, and as long as 400 are not confirmed by a marker that came back, no more are sent.
constexpr std::uint64_t messages_per_marker = 200;
constexpr std::uint64_t most_unconfirmed = 400;

struct pub_options {
    std::string topic;
    std::optional<std::string> data;  ///< without it the lines of stdin are published
    seconds timeout{5};
};

class pub_command {
  public:
    pub_command(const common_options& common, const pub_options& given)
        : options(given),
          hub(common.hub()),
          process(common, failed),
          markers([this](echo::number marker) { confirm(marker); }),
          input(process.loop(), STDIN_FILENO),
          probe(process, [this] { start(); }) {
        expect_answer();
    }

    int run() {
        const int status = process.run();
        if (status != done) tell(fmt::format("{} of {} messages are not confirmed", sent - confirmed, sent));
        return status;
    }

  private:
    void start() {
        answer_deadline.reset();
        if (options.data) {
            publish(*options.data);
            end_of_messages = true;
        }
        publish_lines();
    }

    void publish_lines() {
        while (!end_of_messages && sent - confirmed < most_unconfirmed) {
            const auto line = input.next();
            if (line) {
                publish(*line);
            } else if (input.at_end()) {
                end_of_messages = true;
            } else {
                return input.await_more([this] { publish_lines(); });
            }
        }
        if (end_of_messages) finish_or_await();
    }

    void publish(const std::string& data) {
        if (data.find('\0') != std::string::npos)
            throw std::runtime_error(
                fmt::format("message {} has a NUL byte, which the hub cannot carry", sent + 1));
        publisher.publish(options.topic, data);
        if (++sent % messages_per_marker == 0) send_marker();
    }

    void send_marker() {
        marked = sent;
        markers.send(sent);
        if (!answer_deadline) expect_answer();
    }

    void confirm(echo::number marker) {
        if (marker <= confirmed || marker > sent) return;
        confirmed = marker;
        answer_deadline.reset();
        if (marked > confirmed) expect_answer();
        publish_lines();
    }

    void finish_or_await() {
        if (confirmed == sent) return process.finish(done);
        if (marked != sent) send_marker();
    }

    void expect_answer() {
        answer_deadline = process.after(options.timeout, [this] {
            process.finish(timed_out, fmt::format("no answer from the hub at {} within {:g} s", hub,
                                                  options.timeout.count()));
        });
    }

    const pub_options& options;
    const std::string hub;
    session process;
    v1::publisher publisher;
    echo markers;
    input_lines input;
    readiness probe;
    session::timer answer_deadline;
    std::uint64_t sent = 0;
    std::uint64_t marked = 0;     ///< so many were sent when the last marker went out
    std::uint64_t confirmed = 0;  ///< so many the hub has relayed for certain
    bool end_of_messages = false;
};

}  // namespace

void add_pub_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<pub_options>();
    CLI::App& command = *app.add_subcommand(
        "pub", "Publish DATA, or each line of stdin; done when the hub has relayed every message");
    command.add_option("TOPIC", options->topic, "Topic; up to and including a \":\" it is for the log alone")
        ->required();
    command.add_option("DATA", options->data, "One message; without it each line of stdin is one");
    add_seconds(command, "--timeout", options->timeout, "Give up when the hub has not answered for so long")
        ->default_str("5");
    command.callback([&common, &chosen, options] {
        chosen = [&common, options] { return pub_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

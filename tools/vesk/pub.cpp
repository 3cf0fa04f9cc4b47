#include <deque>
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

// A publisher that runs ahead of its hub, or whose hub goes away, loses messages silently: ZeroMQ gives it
// credit for 500 messages at a time, and has it look for new credit about once a millisecond. So a marker
// follows every 200 messages and every pause, and while 400 messages are not confirmed by a marker that came
// back, no more are sent. Markers come back one per millisecond, and count in their order only: behind one
// that is lost nothing is confirmed.
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
        if (status != done && sent > 0)
            tell(fmt::format("{} of {} messages are not confirmed", sent - confirmed, sent));
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
                input.await_more([this] { publish_lines(); });
                break;
            }
        }
        if (outstanding_markers.empty() && sent != confirmed) send_marker();
        if (end_of_messages && sent == confirmed) process.finish(done);
    }

    void publish(const std::string& data) {
        if (data.find('\0') != std::string::npos)
            throw std::runtime_error(
                fmt::format("message {} has a NUL byte, which the hub cannot carry", sent + 1));
        publisher.publish(options.topic, data);
        if (++sent % messages_per_marker == 0) send_marker();
    }

    void send_marker() {
        outstanding_markers.push_back(sent);
        markers.send(sent);
        if (!answer_deadline) expect_answer();
    }

    void confirm(echo::number marker) {
        if (outstanding_markers.empty() || marker != outstanding_markers.front()) return;
        outstanding_markers.pop_front();
        confirmed = marker;
        answer_deadline.reset();
        if (!outstanding_markers.empty()) expect_answer();
        publish_lines();
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
    std::uint64_t confirmed = 0;                   ///< so many the hub has relayed for certain
    std::deque<echo::number> outstanding_markers;  ///< each is the number of messages sent before it
    bool end_of_messages = false;
};

}  // namespace

void add_pub_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<pub_options>();
    CLI::App& command = *app.add_subcommand(
        "pub", "Publish DATA, or each line of stdin; done when the hub has relayed every message");
    verbatim(command.add_option("TOPIC", options->topic,
                                "Topic; up to and including a \":\" it is for the log alone"))
        ->required();
    verbatim(command.add_option("DATA", options->data, "One message; without it each line of stdin is one"));
    add_seconds(command, "--timeout", options->timeout, "Give up when the hub has not answered for so long")
        ->default_str("5");
    command.callback([&common, &chosen, options] {
        chosen = [&common, options] { return pub_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

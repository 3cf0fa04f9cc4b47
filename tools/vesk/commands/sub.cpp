#include <chrono>
#include <iostream>
#include <memory>
#include <vector>

#include <unistd.h>

#include <tolvan/Variant.hpp>

#include "bus/echo.hpp"
#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "terminal/printable.hpp"

namespace tolvan::vesk::tool {

namespace {

struct sub_options {
    std::vector<std::string> topics;
    bool json = false;
    unsigned long long count = 0;  ///< 0: no end
    seconds timeout{0};            ///< 0: none
};

class sub_command {
  public:
    sub_command(const common_options& common, const sub_options& given)
        : options(given), process(common, done) {
        for (const auto& topic : given.topics) subscribe(topic);
        if (given.topics.empty()) subscribe("");
        probe = std::make_unique<readiness>(process, [] { tell("ready"); });
        if (options.timeout.count() > 0)
            deadline = process.after(options.timeout, [this] {
                process.finish(timed_out, "timed out after " + std::to_string(printed) + " messages");
            });
    }

    int run() { return process.run(); }

  private:
    void subscribe(const std::string& topic) {
        subscriber.subscribe(topic, nullptr,
                             [this, everything = topic.empty()](const auto& received, const auto& data) {
                                 if (everything && received.starts_with(probe_prefix)) return;
                                 print(received, data);
                             });
    }

    void print(const std::string& topic, const std::string& data) {
        if (options.count != 0 && printed == options.count) return;
        const std::string line = options.json ? as_json(topic, data) : topic + " " + data;
        std::cout << shown_on(STDOUT_FILENO, line) << std::endl;
        if (!std::cout) return process.finish(failed, "could not write to stdout");
        if (++printed == options.count) process.finish(done);
    }

    static std::string as_json(const std::string& topic, const std::string& data) {
        const auto now = std::chrono::floor<session::milliseconds>(std::chrono::system_clock::now());
        return Variant::object({{"topic", Variant::string(topic)},
                                {"data", Variant::string(data)},
                                {"time_ms", Variant::integer(now.time_since_epoch().count())}})
            .toJson();
    }

    const sub_options& options;
    session process;
    v1::subscriber subscriber;
    std::unique_ptr<readiness> probe;
    session::timer deadline;
    unsigned long long printed = 0;
};

}  // namespace

void add_sub_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<sub_options>();
    CLI::App& command = *app.add_subcommand("sub", "Print what is published, as TOPIC DATA");
    verbatim(command.add_option("TOPIC", options->topics,
                                "Topics; each stands for all that go on after it with a \".\""));
    command.add_flag("--json", options->json,
                     "Print one JSON object a line: topic, data, time_ms (Unix time)");
    command.add_option("--count", options->count, "End after so many messages")->check(CLI::PositiveNumber);
    add_seconds(command, "--timeout", options->timeout, "Give up after this time, with exit status 3");
    command.callback([&common, &chosen, options] {
        chosen = [&common, options] { return sub_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

#include <algorithm>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "observing/observer.hpp"
#include "observing/recording.hpp"
#include "options/help_text.hpp"
#include "options/validators.hpp"
#include "streams/output_queue.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr const char* standard_output = "-";

struct record_options {
    std::string file = standard_output;
    std::vector<std::string> topics;
    unsigned long long count = 0;  ///< 0: no end
    seconds duration{0};           ///< 0: none
};

bool holds_something(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

nonblocking_output opened(const std::string& file) {
    if (file == standard_output) return nonblocking_output(STDOUT_FILENO);
    wire::descriptor made(::open(file.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    if (made.get() < 0) throw std::system_error(errno, std::generic_category(), "could not open " + file);
    if (holds_something(made.get()))
        throw std::runtime_error(file + " exists; a recording does not overwrite anything");
    return nonblocking_output(std::move(made));
}

class record_command {
  public:
    record_command(const common_options& common, const record_options& given)
        : options(given),
          process([this] { end_soon(); }),
          output(process, opened(given.file), given.file == standard_output ? "stdout" : given.file),
          view(process, common, given.topics,
               {.message = [this](const auto& message) { record(message); },
                .idle = [this] { output.flush(); }}) {
        output.add([this](std::string& to) { lines.append_header(to); });
        if (options.duration.count() > 0)
            deadline = process.after(options.duration, [this] { end_in_time(); });
    }

    int run() {
        const int status = process.run();
        const std::uint64_t unwritten = count_unwritten_messages();
        const std::uint64_t lost = output.dropped() + unwritten;
        tell(fmt::format("recorded {} messages, lost {}", counted.messages - unwritten, lost));
        if (const seconds away = view.time_away(); away.count() > 0)
            tell(fmt::format("the hub was away for {:.1f} s; what came then is not known", away.count()));
        return lost > 0 ? failed : status;
    }

  private:
    void record(const wire::hub_message& message) {
        if (output.is_ending()) return;
        if (!output.add([&](std::string& to) { lines.append_message(to, message); })) return;
        counted.bytes += message.data.size();
        if (++counted.messages == options.count) end(done);
    }

    void end(int code) {
        if (output.is_ending()) return;
        counted.lost = output.dropped();
        counted.hub_away = view.time_away();
        output.add_anyway([this](std::string& to) { recording::append_end(to, counted); });
        output.finish(code);
    }

    void end_soon() {
        end(done);
        output.finish_soon(done);
    }

    void end_in_time() {
        if (output.is_ending() || counted.messages > 0 || view.hub_is_ready()) return end(done);
        tell(fmt::format("timed out: {} within {:g} s", view.what_is_missing(), options.duration.count()));
        end(timed_out);
    }

    // Of a recording that could not be written to its end.
    std::uint64_t count_unwritten_messages() const {
        const std::uint64_t lines_of_mine = output.is_ending() ? 1 : 0;
        const std::uint64_t unwritten = output.unwritten_lines();
        return std::min(unwritten - std::min(unwritten, lines_of_mine), counted.messages);
    }

    const record_options& options;
    const recording lines;
    recording::counts counted;
    event_process process;
    output_queue output;
    observer view;
    event_process::timer deadline;
};

}  // namespace

void add_record_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<record_options>();
    CLI::App& command = *app.add_subcommand("record", "Record what is published, as lines of JSON");
    verbatim(command.add_option("FILE", options->file, "A new file; \"-\" or none is stdout"));
    verbatim(command.add_option("TOPIC", options->topics,
                                "Topics; each stands for all that go on after it with a \".\""));
    command.add_option("--count", options->count, "End after so many messages")
        ->transform(number_from("a number of messages", 1ULL))
        ->type_name("N")
        ->default_str("no end");
    add_seconds(command, "--duration", options->duration, "End after this time")->default_str("no end");
    add_examples(command, {{"vesk record minute.jsonl plant --duration 60",
                            "Records what is published to plant, plant.pump and so on for a minute."},
                           {"vesk record | gzip >bus.jsonl.gz", "Records everything until ^C, compressed."}});
    command.callback([&common, &chosen, options] {
        chosen = [&common, options] { return record_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

#include <exception>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <unistd.h>

#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "options/documents.hpp"
#include "options/help_text.hpp"
#include "options/option_table.hpp"
#include "options/usage_errors.hpp"
#include "streams/standard_output.hpp"
#include "terminal/signals.hpp"
#include "terminal/tell.hpp"

namespace tolvan::vesk::tool {

namespace {

// Without them the next files to be opened would get their numbers. What is written to such a stream fails,
// as it would have.
void open_missing_standard_streams() {
    while (true) {
        const int fd = ::open("/dev/null", O_RDONLY);
        if (fd > STDERR_FILENO) ::close(fd);
        if (fd < 0 || fd > STDERR_FILENO) return;
    }
}

// A monitoring system takes any other code for something that is known of the bus.
int failure_code(const CLI::App& app, exit_code usual) {
    return app.got_subcommand("check") ? monitoring_unknown : usual;
}

int run_chosen(const CLI::App& app, common_options& common, const chosen_command& chosen) {
    try {
        complete(app, common);
        return chosen();
    } catch (const std::exception& error) {
        tell(error.what());
        return failure_code(app, failed);
    }
}

void describe(CLI::App& app) {
    app.set_version_flag("--version", "vesk " VESK_VERSION, "Print the version");
    app.require_subcommand(1);
    app.fallthrough();
    app.set_help_flag("-h,--help", "Print this text");
    add_examples(app, {{"vesk hub", "Runs the hub in this terminal."},
                       {"vesk help pub", "Says what the command pub does, and how."}});
}

void add_commands(CLI::App& app, const common_options& common, chosen_command& chosen) {
    add_hub_command(app, common, chosen);
    add_pub_command(app, common, chosen);
    add_sub_command(app, common, chosen);
    add_request_command(app, common, chosen);
    add_serve_command(app, common, chosen);
    add_record_command(app, common, chosen);
    add_replay_command(app, common, chosen);
    add_top_command(app, common, chosen);
    add_trace_command(app, common, chosen);
    add_check_command(app, common, chosen);
    add_bench_command(app, common, chosen);
    add_help_command(app, chosen);
}

// Gives the exit status when the command line asks for nothing but a text, or is wrong.
std::optional<int> parse(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(shielded(argc, argv));
        return std::nullopt;
    } catch (const CLI::CallForHelp&) {
        put_out(help_text(named_part(app)));
    } catch (const CLI::CallForVersion& version) {
        put_out(std::string(version.what()) + "\n");
    } catch (const CLI::Success&) {  // the documents are written
    } catch (const CLI::ParseError& error) {
        tell_usage_error(app, error);
        return failure_code(app, wrong_usage);
    }
    return done;
}

int run(int argc, char** argv) {
    open_missing_standard_streams();
    let_writes_fail();
    CLI::App app("Shows the vesk message bus at work, from a shell", "vesk");
    common_options common;
    chosen_command chosen;
    describe(app);
    add_common_options(app, common);
    add_documents_option(app);
    add_commands(app, common, chosen);
    if (const auto ended = parse(app, argc, argv)) return *ended;
    return run_chosen(app, common, chosen);
}

}  // namespace

}  // namespace tolvan::vesk::tool

int main(int argc, char** argv) {
    try {
        return tolvan::vesk::tool::run(argc, argv);
    } catch (const std::exception& error) {
        tolvan::vesk::tool::tell(error.what());
        return tolvan::vesk::tool::failed;
    }
}

#include <exception>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <unistd.h>

#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "terminal/tell.hpp"

namespace tolvan::vesk::tool {

namespace {

// Without them the next files to be opened would get their numbers.
void open_missing_standard_streams() {
    while (true) {
        const int fd = ::open("/dev/null", O_RDWR);
        if (fd > STDERR_FILENO) ::close(fd);
        if (fd < 0 || fd > STDERR_FILENO) return;
    }
}

int run(int argc, char** argv) {
    open_missing_standard_streams();
    CLI::App app(
        "Shows the vesk message bus at work: runs its hub, publishes, subscribes, requests, serves and "
        "measures.",
        "vesk");
    app.set_version_flag("--version", "vesk " VESK_VERSION);
    app.require_subcommand(1);
    app.fallthrough();

    common_options common;
    chosen_command chosen;
    add_common_options(app, common);
    add_hub_command(app, common, chosen);
    add_pub_command(app, common, chosen);
    add_sub_command(app, common, chosen);
    add_request_command(app, common, chosen);
    add_serve_command(app, common, chosen);
    add_bench_command(app, common, chosen);
    try {
        app.parse(shielded(argc, argv));
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? done : wrong_usage;
    }
    complete(app, common);
    return chosen();
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

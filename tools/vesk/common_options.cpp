#include "common_options.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace tolvan::vesk::tool {

namespace {

constexpr const char* pub_endpoint_option = "--pub-endpoint";
constexpr const char* sub_endpoint_option = "--sub-endpoint";
constexpr char shield = '\x1f';

std::string default_folder() {
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime != nullptr && *runtime != '\0' ? std::string(runtime) + "/vesk"
                                                  : "/tmp/vesk-" + std::to_string(::getuid());
}

// Made by whoever comes first, hub or client: in a folder that is somebody else's, the hub would be too.
void claim(const std::string& folder) {
    struct stat status = {};
    ::mkdir(folder.c_str(), 0700);
    if (::lstat(folder.c_str(), &status) != 0)
        throw std::system_error(errno, std::generic_category(), "could not make the folder " + folder);
    if (!S_ISDIR(status.st_mode) || status.st_uid != ::getuid() || (status.st_mode & 077) != 0)
        throw std::runtime_error(folder +
                                 " is not a folder that only you can enter; name both endpoints instead");
}

}  // namespace

void add_common_options(CLI::App& app, common_options& options) {
    app.add_option(
           pub_endpoint_option, options.pub_endpoint,
           "Where the hub takes messages; by default the ipc socket \"pub\" in $XDG_RUNTIME_DIR/vesk, or "
           "in /tmp/vesk-UID without that variable")
        ->envname("VESK_PUB_ENDPOINT");
    app.add_option(sub_endpoint_option, options.sub_endpoint,
                   "Where the hub gives messages out; by default the ipc socket \"sub\" in the same folder")
        ->envname("VESK_SUB_ENDPOINT");
    app.add_option("--log-level", options.log_level,
                   "Log on stderr: -1 nothing, 0 errors, 1 warnings, 2 statistics, 3 everything")
        ->check(CLI::Range(-1, 3))
        ->capture_default_str();
}

void complete(const CLI::App& app, common_options& options) {
    const bool pub_named = !app.get_option(pub_endpoint_option)->empty();
    const bool sub_named = !app.get_option(sub_endpoint_option)->empty();
    if (pub_named && sub_named) return;
    const std::string folder = default_folder();
    claim(folder);
    if (!pub_named) options.pub_endpoint = "ipc://" + folder + "/pub";
    if (!sub_named) options.sub_endpoint = "ipc://" + folder + "/sub";
}

std::vector<std::string> shielded(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    for (auto& argument : arguments)
        if (argument.starts_with('[') && argument.ends_with(']')) argument += shield;
    std::reverse(arguments.begin(), arguments.end());  // the order in which CLI11 takes them
    return arguments;
}

CLI::Option* verbatim(CLI::Option* option) {
    return option->transform([](std::string text) {
        if (text.ends_with(shield)) text.pop_back();
        return text;
    });
}

CLI::Option* add_seconds(CLI::App& app, const std::string& name, seconds& value,
                         const std::string& description) {
    return app
        .add_option_function<double>(
            name, [&value](double given) { value = seconds(given); }, description)
        ->check(CLI::Range(0.001, 1e6))
        ->type_name("SECONDS");
}

}  // namespace tolvan::vesk::tool

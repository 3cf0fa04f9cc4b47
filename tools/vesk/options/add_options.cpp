#include "options/add_options.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "options/user_group.hpp"
#include "options/validators.hpp"
#include "terminal/tell.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr const char* pub_endpoint_option = "--pub-endpoint";
constexpr const char* sub_endpoint_option = "--sub-endpoint";
constexpr const char* machine_folder = "/run/vesk";  // that of the hub that runs as a service
constexpr char shield = '\x1f';

const char* runtime_folder() {
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime != nullptr && *runtime != '\0' ? runtime : nullptr;
}

std::string default_folder() {
    const char* const runtime = runtime_folder();
    return runtime != nullptr ? std::string(runtime) + "/vesk" : "/tmp/vesk-" + std::to_string(::getuid());
}

bool is_mine_alone(const struct stat& folder) {
    return folder.st_uid == ::getuid() && (folder.st_mode & 077) == 0;
}

bool has_a_hub(const std::string& folder) {
    return ::access((folder + "/pub").c_str(), F_OK) == 0;
}

// Whether the hub of the machine is there and lets this process in. Nobody but root can put anything into
// /run, so that the folder is what it looks like.
bool may_enter_machine_folder() {
    struct stat folder = {};
    if (::lstat(machine_folder, &folder) != 0 || (folder.st_mode & 077) != 050) return false;
    if (::geteuid() == 0 || is_in_group(folder.st_gid)) return true;
    const std::string group = name_of_group(folder.st_gid);
    tell(
        fmt::format("the hub of this machine, in {}, is for its group {}, to which you do not belong; after "
                    "\"adduser NAME {}\" NAME has to log in again",
                    machine_folder, group, group));
    return false;
}

// As a hub for a group has it. Another's counts only where somebody has said that things are shared: in /tmp
// a fellow member could put up a hub of his own under anybody's name.
bool is_for_a_group(const struct stat& folder) {
    if ((folder.st_mode & 077) != 050) return false;
    return folder.st_uid == ::getuid() || (runtime_folder() != nullptr && is_in_group(folder.st_gid));
}

// Made by whoever comes first, hub or client: in a folder that is somebody else's, the hub would be too.
void claim(const std::string& folder) {
    struct stat status = {};
    if (::mkdir(folder.c_str(), 0700) == 0) ::chmod(folder.c_str(), 0700);
    if (::lstat(folder.c_str(), &status) != 0)
        throw std::system_error(errno, std::generic_category(), "could not make the folder " + folder);
    if (!S_ISDIR(status.st_mode) || !(is_mine_alone(status) || is_for_a_group(status)))
        throw std::runtime_error(folder +
                                 " is not a folder that only you or a group of yours can enter and its owner "
                                 "alone can change; name both endpoints instead");
}

}  // namespace

void add_common_options(CLI::App& app, common_options& options) {
    app.add_option(
           pub_endpoint_option, options.pub_endpoint,
           "Where the hub takes messages; without XDG_RUNTIME_DIR the default is in /tmp/vesk-UID, and "
           "in /run/vesk when the only hub for you is there")
        ->envname("VESK_PUB_ENDPOINT")
        ->type_name("ENDPOINT")
        ->default_str("ipc://$XDG_RUNTIME_DIR/vesk/pub");
    app.add_option(
           sub_endpoint_option, options.sub_endpoint,
           "Where the hub gives messages out; without XDG_RUNTIME_DIR the default is in /tmp/vesk-UID, and "
           "in /run/vesk when the only hub for you is there")
        ->envname("VESK_SUB_ENDPOINT")
        ->type_name("ENDPOINT")
        ->default_str("ipc://$XDG_RUNTIME_DIR/vesk/sub");
    app.add_option("--log-level", options.log_level,
                   "Log on stderr: -1 nothing, 0 errors, 1 warnings, 2 statistics, 3 everything")
        ->transform(number_from("a level", -1, 3))
        ->type_name("LEVEL")
        ->capture_default_str();
}

void complete(const CLI::App& app, common_options& options) {
    const bool pub_named = !app.get_option(pub_endpoint_option)->empty();
    const bool sub_named = !app.get_option(sub_endpoint_option)->empty();
    if (pub_named && sub_named) return;
    const bool is_client = !app.got_subcommand("hub") && !app.got_subcommand("help");
    std::string folder = default_folder();
    if (is_client && !has_a_hub(folder) && may_enter_machine_folder())
        folder = machine_folder;
    else if (is_client)  // a hub claims its folders itself
        claim(folder);
    if (!pub_named) options.pub_endpoint = "ipc://" + folder + "/pub";
    if (!sub_named) options.sub_endpoint = "ipc://" + folder + "/sub";
}

std::vector<std::string> shielded(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    for (auto& argument : arguments)
        if ((argument.starts_with('[') && argument.ends_with(']')) || argument.ends_with(shield))
            argument += shield;
    std::reverse(arguments.begin(), arguments.end());  // the order in which CLI11 takes them
    return arguments;
}

std::string unshielded(std::string argument) {
    if (argument.ends_with(shield)) argument.pop_back();
    return argument;
}

CLI::Option* verbatim(CLI::Option* option) {
    return option->transform(unshielded);
}

CLI::Option* add_seconds(CLI::App& app, const std::string& name, seconds& value,
                         const std::string& description) {
    return app
        .add_option_function<double>(
            name, [&value](double given) { value = seconds(given); }, description)
        ->transform(number_from("a number of seconds", 0.001, 1e6))
        ->type_name("SECONDS");
}

CLI::Option* add_milliseconds(CLI::App& app, const std::string& name, std::optional<milliseconds>& value,
                              const std::string& description) {
    return app
        .add_option_function<double>(
            name, [&value](double given) { value = milliseconds(given); }, description)
        ->transform(number_from("a number of milliseconds", 0.001, 1e9))
        ->type_name("MS");
}

}  // namespace tolvan::vesk::tool

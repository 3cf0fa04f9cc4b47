#include "common_options.hpp"

#include <cstdlib>
#include <stdexcept>

#include <sys/stat.h>
#include <unistd.h>

namespace tolvan::vesk::tool {

namespace {

// In a folder that everybody can write to somebody else may have been first: then the hub there is not ours.
std::string private_folder_in_tmp() {
    const std::string folder = "/tmp/vesk-" + std::to_string(::getuid());
    struct stat status = {};
    if (::lstat(folder.c_str(), &status) == 0 && (!S_ISDIR(status.st_mode) || status.st_uid != ::getuid()))
        throw std::runtime_error(folder +
                                 " belongs to somebody else; set XDG_RUNTIME_DIR or name the endpoints");
    return folder;
}

std::string default_folder() {
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime != nullptr && *runtime != '\0' ? std::string(runtime) + "/vesk" : private_folder_in_tmp();
}

}  // namespace

void add_common_options(CLI::App& app, common_options& options) {
    const std::string folder = default_folder();
    options.pub_endpoint = "ipc://" + folder + "/pub";
    options.sub_endpoint = "ipc://" + folder + "/sub";
    app.add_option("--pub-endpoint", options.pub_endpoint, "Where the hub takes messages")
        ->envname("VESK_PUB_ENDPOINT")
        ->capture_default_str();
    app.add_option("--sub-endpoint", options.sub_endpoint, "Where the hub gives messages out")
        ->envname("VESK_SUB_ENDPOINT")
        ->capture_default_str();
    app.add_option("--log-level", options.log_level,
                   "Log on stderr: -1 nothing, 0 errors, 1 warnings, 2 statistics, 3 everything")
        ->check(CLI::Range(-1, 3))
        ->capture_default_str();
}

CLI::Option* add_seconds(CLI::App& app, const std::string& name, seconds& value,
                         const std::string& description) {
    return app
        .add_option_function<double>(
            name, [&value](double given) { value = seconds(given); }, description)
        ->check(CLI::Range(0.001, 1e9))
        ->type_name("SECONDS");
}

}  // namespace tolvan::vesk::tool

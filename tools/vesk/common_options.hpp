#pragma once

#include <chrono>
#include <string>

#include <CLI/CLI.hpp>

namespace tolvan::vesk::tool {

/// What every subcommand is told.
struct common_options {
    std::string pub_endpoint;
    std::string sub_endpoint;
    int log_level = 0;

    /// For messages to people: both endpoints.
    std::string hub() const { return pub_endpoint + " and " + sub_endpoint; }
};

/// Adds the options to `app`, with their environment variables and defaults.
void add_common_options(CLI::App& app, common_options& options);

/// A number of seconds, more than 0.
using seconds = std::chrono::duration<double>;

/// Adds an option that takes seconds.
CLI::Option* add_seconds(CLI::App& app, const std::string& name, seconds& value,
                         const std::string& description);

}  // namespace tolvan::vesk::tool

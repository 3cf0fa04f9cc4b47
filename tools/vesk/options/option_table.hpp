#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tolvan::vesk::tool {

/// An option or an argument of a command, in the words of help texts, manual pages and completions.
struct option_row {
    std::vector<std::string> names;  ///< "-h", "--help"; of an argument none
    std::string value;               ///< what is to be given: "SECONDS", "TOPIC"; of a flag nothing
    std::string description;
    std::vector<std::string> limits;  ///< what further holds: range, default, environment variable
    bool required = false;
    bool repeated = false;

    /// As it is shown in a table: "-h, --help", "--timeout SECONDS", "TOPIC".
    std::string usage() const;

    /// What it does, and the limits behind it.
    std::string text() const;
};

/// What `app` itself takes, hidden options left out.
std::vector<option_row> options_of(const CLI::App& app);
std::vector<option_row> arguments_of(const CLI::App& app);

/// The subcommands of `app`, in the order in which they were added.
std::vector<const CLI::App*> commands_of(const CLI::App& app);

/// The command that the parsed command line names, or `app` itself.
const CLI::App& named_part(const CLI::App& app);

/// A line such as "vesk pub [OPTION]... TOPIC [DATA]".
std::string usage_of(const CLI::App& app);

}  // namespace tolvan::vesk::tool

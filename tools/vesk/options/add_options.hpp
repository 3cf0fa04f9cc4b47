#pragma once

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "options/common_options.hpp"

namespace tolvan::vesk::tool {

/// Adds the options to `app`, with their environment variables.
void add_common_options(CLI::App& app, common_options& options);

/// Gives endpoints that were not named to `app` their defaults. Throws std::runtime_error when others can get
/// at them.
void complete(const CLI::App& app, common_options& options);

/// The arguments for CLI11 to parse. It would take a text such as "[a,b]" for two; here they are shielded
/// from that, and `verbatim` takes the shield away.
std::vector<std::string> shielded(int argc, char** argv);

/// Takes the shield of an argument away, if it has one.
std::string unshielded(std::string argument);

/// Makes an option take its texts as they stand. To be called before checks are added.
CLI::Option* verbatim(CLI::Option* option);

/// Adds an option that takes seconds.
CLI::Option* add_seconds(CLI::App& app, const std::string& name, seconds& value,
                         const std::string& description);

/// Adds an option that takes milliseconds; none unless it is given.
CLI::Option* add_milliseconds(CLI::App& app, const std::string& name, std::optional<milliseconds>& value,
                              const std::string& description);

}  // namespace tolvan::vesk::tool

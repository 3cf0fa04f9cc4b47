#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace tolvan::vesk::tool {

/// The command of that name. Throws CLI::ParseError, which names the nearest one, when there is none.
const CLI::App& command_called(const std::string& name, const CLI::App& app);

/// Says on stderr what is wrong with the command line that `app` has just refused with `error`, and where
/// help is. A name that does not exist comes before whatever else is wrong, with the nearest that does.
void tell_usage_error(const CLI::App& app, const CLI::ParseError& error);

}  // namespace tolvan::vesk::tool

#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace tolvan::vesk::tool {

/// A file that has bash complete the commands and options of `app`.
std::string bash_completion(const CLI::App& app);

/// The same for zsh, to be found as "_" and the name of `app`.
std::string zsh_completion(const CLI::App& app);

}  // namespace tolvan::vesk::tool

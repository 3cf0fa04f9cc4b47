#pragma once

#include <initializer_list>
#include <string>

#include <CLI/CLI.hpp>

namespace tolvan::vesk::tool {

/// A line for the shell, and what it does.
struct example {
    std::string line;
    std::string effect;
};

/// Shows these examples at the end of the command's help text and in its manual page.
void add_examples(CLI::App& command, std::initializer_list<example> examples);

/// What "vesk help" prints of `app` or of one of its commands: every option with its unit, range, default and
/// environment variable, in lines of 80 characters.
std::string help_text(const CLI::App& app);

}  // namespace tolvan::vesk::tool

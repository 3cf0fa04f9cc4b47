#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace tolvan::vesk::tool {

/// The name of the manual page of `app` or of one of its commands, such as "vesk-pub".
std::string man_page_name(const CLI::App& app);

/// That page, for section 1, as roff text. It says what the help text says.
std::string man_page(const CLI::App& app);

}  // namespace tolvan::vesk::tool

#pragma once

#include <CLI/CLI.hpp>

namespace tolvan::vesk::tool {

/// Adds an option that no help text shows, for whoever installs the command: "--write-documents FOLDER"
/// writes manual pages and completions into FOLDER, laid out as a system's "share" folder, and ends the
/// parsing with CLI::Success. Throws std::system_error when it cannot write them.
void add_documents_option(CLI::App& app);

}  // namespace tolvan::vesk::tool

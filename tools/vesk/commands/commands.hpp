#pragma once

#include <functional>

#include <CLI/CLI.hpp>

#include "options/add_options.hpp"

namespace tolvan::vesk::tool {

/// The subcommand that the command line has chosen; gives the exit status. Runs after parsing is done.
using chosen_command = std::function<int()>;

// Each adds one subcommand to `app`, which sets `chosen` when the command line names it.
void add_hub_command(CLI::App& app, const common_options& common, chosen_command& chosen);
void add_pub_command(CLI::App& app, const common_options& common, chosen_command& chosen);
void add_sub_command(CLI::App& app, const common_options& common, chosen_command& chosen);
void add_request_command(CLI::App& app, const common_options& common, chosen_command& chosen);
void add_serve_command(CLI::App& app, const common_options& common, chosen_command& chosen);
void add_record_command(CLI::App& app, const common_options& common, chosen_command& chosen);
void add_replay_command(CLI::App& app, const common_options& common, chosen_command& chosen);
void add_top_command(CLI::App& app, const common_options& common, chosen_command& chosen);
void add_trace_command(CLI::App& app, const common_options& common, chosen_command& chosen);
void add_check_command(CLI::App& app, const common_options& common, chosen_command& chosen);
void add_bench_command(CLI::App& app, const common_options& common, chosen_command& chosen);

/// Adds the command that prints the help text of `app` or of one of its commands.
void add_help_command(CLI::App& app, chosen_command& chosen);

}  // namespace tolvan::vesk::tool

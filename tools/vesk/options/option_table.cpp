#include "options/option_table.hpp"

#include <string_view>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace tolvan::vesk::tool {

namespace {

// CLI11 gives the name of the value and what its checks say of themselves as one text with colons in between.
// A name may have a colon too; what our checks say begins with a space.
constexpr std::string_view before_limit = ": ";

std::vector<std::string> names_of(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const auto& name : option.get_snames()) names.push_back("-" + name);
    for (const auto& name : option.get_lnames()) names.push_back("--" + name);
    return names;
}

std::vector<std::string> limits_of(const CLI::Option& option) {
    std::vector<std::string> limits;
    const std::string type = option.get_type_name();
    if (const auto found = type.find(before_limit); found != std::string::npos)
        limits.push_back(type.substr(found + before_limit.size()));
    if (!option.get_default_str().empty()) limits.push_back("default " + option.get_default_str());
    if (!option.get_envname().empty()) limits.push_back("environment " + option.get_envname());
    return limits;
}

std::string value_of(const CLI::Option& option) {
    if (option.get_positional()) return option.get_name(true);
    if (option.get_items_expected_max() == 0) return {};
    const std::string type = option.get_type_name();
    return type.substr(0, type.find(before_limit));
}

option_row row_of(const CLI::Option& option) {
    return {names_of(option),  value_of(option),      option.get_description(),
            limits_of(option), option.get_required(), option.get_items_expected_max() > 1};
}

std::vector<option_row> rows(const CLI::App& app, bool positional) {
    std::vector<option_row> found;
    for (const auto* option : app.get_options())
        if (!option->get_group().empty() && option->get_positional() == positional)
            found.push_back(row_of(*option));
    return found;
}

std::string usage_of_argument(const option_row& argument) {
    return (argument.required ? argument.value : "[" + argument.value + "]") +
           (argument.repeated ? "..." : "");
}

}  // namespace

std::string option_row::usage() const {
    if (names.empty()) return value;
    return fmt::format("{}{}{}", fmt::join(names, ", "), value.empty() ? "" : " ", value);
}

std::string option_row::text() const {
    if (limits.empty()) return description;
    return fmt::format("{} ({})", description, fmt::join(limits, "; "));
}

std::vector<option_row> options_of(const CLI::App& app) {
    return rows(app, false);
}

std::vector<option_row> arguments_of(const CLI::App& app) {
    return rows(app, true);
}

std::vector<const CLI::App*> commands_of(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App& named_part(const CLI::App& app) {
    const auto named = app.get_subcommands();
    return named.empty() ? app : *named.front();
}

std::string usage_of(const CLI::App& app) {
    const bool has_commands = !commands_of(app).empty();
    std::string usage = app.get_parent() == nullptr ? "" : app.get_parent()->get_name() + " ";
    usage += app.get_name() + " [OPTION]..." + (has_commands ? " COMMAND [ARGUMENT]..." : "");
    for (const auto& argument : arguments_of(app)) usage += " " + usage_of_argument(argument);
    return usage;
}

}  // namespace tolvan::vesk::tool

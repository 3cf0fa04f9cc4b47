#include "options/usage_errors.hpp"

#include <algorithm>
#include <vector>

#include <fmt/format.h>

#include "options/add_options.hpp"
#include "options/nearest.hpp"
#include "options/option_table.hpp"
#include "terminal/tell.hpp"

namespace tolvan::vesk::tool {

namespace {

std::string perhaps(const std::string& meant) {
    return meant.empty() ? "" : fmt::format("; did you mean '{}'?", meant);
}

std::string no_such_command(const std::string& name, const CLI::App& app) {
    std::vector<std::string> names;
    for (const auto* command : commands_of(app)) names.push_back(command->get_name());
    return fmt::format("there is no command '{}'{}", name, perhaps(nearest(name, names)));
}

void append_names(std::vector<std::string>& names, const CLI::App& app) {
    for (const auto& row : options_of(app)) names.insert(names.end(), row.names.begin(), row.names.end());
}

std::string no_such_option(const std::string& given, const CLI::App& app) {
    const CLI::App& part = named_part(app);
    std::vector<std::string> names;
    append_names(names, part);
    append_names(names, app);
    const std::string name = given.substr(0, given.find('='));
    const std::string meant = nearest(name, names);
    return fmt::format(
        "'{}' has no option '{}'{}", part.get_name(), name,
        meant.empty() ? "; what is no option, but begins with '-', goes behind '--'" : perhaps(meant));
}

std::string unexpected(const std::string& given, const CLI::App& app) {
    if (given.starts_with('-')) return no_such_option(given, app);
    if (app.get_subcommands().empty()) return no_such_command(given, app);
    return fmt::format("'{}' is one argument too many for '{}'", given, named_part(app).get_name());
}

// The first argument that is nothing known, as it was given; empty when there is none.
std::string first_stranger(const CLI::App& app) {
    for (const auto& given : app.remaining(true))
        if (given != "--") return unshielded(given);
    return {};
}

// CLI11 gives the name of the option, a colon, and how many values it wants or has got.
std::string in_words(const CLI::ArgumentMismatch& error) {
    std::string text = error.what();
    const std::string name = text.substr(0, text.find(':'));
    if (text.ends_with(" missing")) return name + " needs a value behind it";
    if (text.find(": At least") != std::string::npos) return name + " needs more values behind it";
    if (text.find(": At Most") != std::string::npos) return name + " is given more than once";
    return text;
}

std::string explained(const CLI::App& app, const CLI::ParseError& error) {
    const std::string stranger = first_stranger(app);
    if (!stranger.empty()) return unexpected(stranger, app);
    if (const auto* mismatch = dynamic_cast<const CLI::ArgumentMismatch*>(&error)) return in_words(*mismatch);
    const bool something_is_missing = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
    return something_is_missing && app.get_subcommands().empty() ? "a command is missing" : error.what();
}

}  // namespace

const CLI::App& command_called(const std::string& name, const CLI::App& app) {
    const auto commands = commands_of(app);
    const auto found = std::find_if(commands.begin(), commands.end(),
                                    [&](const CLI::App* command) { return command->get_name() == name; });
    if (found == commands.end()) throw CLI::ValidationError(no_such_command(name, app));
    return **found;
}

void tell_usage_error(const CLI::App& app, const CLI::ParseError& error) {
    tell(explained(app, error));
    const CLI::App& part = named_part(app);
    tell(fmt::format("see 'vesk help{}'", &part == &app ? "" : " " + part.get_name()));
}

}  // namespace tolvan::vesk::tool

#include "options/help_text.hpp"

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "options/option_table.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr std::size_t line_width = 80;
constexpr std::size_t widest_name = 22;

struct entry {
    std::string name;
    std::string text;
};

// The words of the text in lines that fit behind an indentation.
std::string wrapped(const std::string& text, std::size_t indentation) {
    std::istringstream words(text);
    std::string lines, line, word;
    while (words >> word) {
        if (!line.empty() && indentation + line.size() + 1 + word.size() > line_width) {
            lines += line + "\n" + std::string(indentation, ' ');
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    return lines + line;
}

std::string row(const entry& shown, std::size_t column) {
    std::string begin = fmt::format("  {:{}}", shown.name, column - 2);
    if (begin.size() > column) begin += "\n" + std::string(column, ' ');
    return begin + wrapped(shown.text, column) + "\n";
}

std::string section(const std::string& title, const std::vector<entry>& entries) {
    if (entries.empty()) return {};
    std::size_t widest = 0;
    for (const auto& shown : entries)
        if (shown.name.size() <= widest_name) widest = std::max(widest, shown.name.size());
    std::string text = "\n" + title + ":\n";
    for (const auto& shown : entries) text += row(shown, widest + 4);
    return text;
}

std::vector<entry> entries_of(const std::vector<option_row>& rows) {
    std::vector<entry> entries;
    entries.reserve(rows.size());
    for (const auto& row : rows) entries.push_back({row.usage(), row.text()});
    return entries;
}

std::vector<entry> entries_of(const std::vector<const CLI::App*>& commands) {
    std::vector<entry> entries;
    entries.reserve(commands.size());
    for (const auto* command : commands) entries.push_back({command->get_name(), command->get_description()});
    return entries;
}

}  // namespace

void add_examples(CLI::App& command, std::initializer_list<example> examples) {
    std::string text = "Examples:";
    for (const auto& [line, effect] : examples) text += "\n  " + line + "\n      " + wrapped(effect, 6);
    command.footer(std::move(text));
}

std::string help_text(const CLI::App& app) {
    std::string text = wrapped(app.get_description(), 0) + "\n\nUsage: " + wrapped(usage_of(app), 7) + "\n";
    text += section("Commands", entries_of(commands_of(app)));
    text += section("Arguments", entries_of(arguments_of(app)));
    text += section("Options", entries_of(options_of(app)));
    if (app.get_parent() != nullptr) text += "\n\"vesk help\" has the options that all commands take.\n";
    return text + "\n" + app.get_footer() + "\n";
}

}  // namespace tolvan::vesk::tool

#include "options/completion.hpp"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "options/option_table.hpp"

namespace tolvan::vesk::tool {

namespace {

using texts = std::vector<std::string>;

constexpr const char* file_value = "FILE";  // what options and arguments call the name of a file

constexpr const char* bash_template = R"(# Completes vesk in bash; made from the command's own option tables.
_vesk() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' word words=''
    local -a files=()
    COMPREPLY=()
    if [[ $current == = ]]; then current=''; fi
    if [[ $previous == = ]]; then previous=${COMP_WORDS[COMP_CWORD - 2]}; fi
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
            --)
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -A command -A file -- "$current")
                return
                ;;
            @COMMANDS@) command=${command:-$word} ;;
        esac
    done
    case $command in
@WORDS@    esac
    if [[ $current == -* ]]; then words+=' @EVERYWHERE@'; fi
    case "$command $previous" in
@VALUES@    esac
    if [[ -n ${files[*]} ]]; then compopt -o filenames 2>/dev/null; fi
    mapfile -t COMPREPLY < <(compgen "${files[@]}" -W "$words" -- "$current")
}
complete -F _vesk vesk
)";

constexpr const char* zsh_template = R"(#compdef vesk
# Completes vesk in zsh; made from the command's own option tables.
local curcontext=$curcontext state
local -a line everywhere commands
everywhere=(@EVERYWHERE@)
commands=(@COMMANDS@)
_arguments -C $everywhere '1:command:->command' '*::argument:->argument' && return
case $state in
    command) _describe command commands ;;
    argument)
        case $words[1] in
@WORDS@        esac
        ;;
esac
)";

std::string filled(std::string text, const std::vector<std::pair<std::string, std::string>>& places) {
    for (const auto& [place, content] : places) text.replace(text.find(place), place.size(), content);
    return text;
}

texts command_names(const CLI::App& app) {
    texts names;
    for (const auto* command : commands_of(app)) names.push_back(command->get_name());
    return names;
}

void append(texts& all, const texts& more) {
    all.insert(all.end(), more.begin(), more.end());
}

bool is_among(const std::string& name, const std::vector<option_row>& rows) {
    return std::any_of(rows.begin(), rows.end(), [&](const option_row& row) {
        return std::find(row.names.begin(), row.names.end(), name) != row.names.end();
    });
}

// The options that the command has beside those of `app`.
std::vector<option_row> further_options(const CLI::App& command, const CLI::App& app) {
    auto rows = options_of(command);
    const auto everywhere = options_of(app);
    std::erase_if(rows, [&](const auto& row) { return is_among(row.names.back(), everywhere); });
    return rows;
}

texts names_in(const std::vector<option_row>& rows) {
    texts names;
    for (const auto& row : rows) append(names, row.names);
    return names;
}

bool is_file(const option_row& row) {
    return row.value == file_value;
}

// The command whose argument is a command.
bool is_help(const CLI::App& command) {
    return command.get_name() == "help";
}

std::string bash_words(const CLI::App& command, const CLI::App& app) {
    texts words = names_in(further_options(command, app));
    if (is_help(command)) append(words, command_names(app));
    const auto arguments = arguments_of(command);
    const bool takes_file = std::any_of(arguments.begin(), arguments.end(), is_file);
    return fmt::format("        {}) words='{}'{} ;;\n", command.get_name(), fmt::join(words, " "),
                       takes_file ? " files=(-A file)" : "");
}

std::string bash_words_of_all(const CLI::App& app) {
    std::string cases = fmt::format("        '') words='{}' ;;\n", fmt::join(command_names(app), " "));
    for (const auto* command : commands_of(app)) cases += bash_words(*command, app);
    return cases;
}

// What follows those options, behind any command that the pattern matches.
std::string bash_values(const std::string& command_pattern, const std::vector<option_row>& rows) {
    std::string cases;
    for (const auto& row : rows)
        if (!row.value.empty())
            cases += fmt::format("        {}' {}') {} ;;\n", command_pattern, row.names.back(),
                                 is_file(row) ? "words='' files=(-A file)" : "return");
    return cases;
}

std::string bash_values_of_all(const CLI::App& app) {
    std::string cases = bash_values("*", options_of(app));
    for (const auto* command : commands_of(app))
        cases += bash_values(command->get_name(), further_options(*command, app));
    return cases;
}

// As it may stand in single quotes; zsh gives the `special` characters a meaning.
std::string zsh_text(const std::string& text, std::string_view special) {
    std::string escaped;
    for (const char character : text) {
        if (special.find(character) != std::string_view::npos) escaped += '\\';
        escaped += character == '\'' ? "'\\''" : std::string(1, character);
    }
    return escaped;
}

// Behind the description of an option, or the place of an argument: what to type, and how it is completed.
std::string zsh_value(const option_row& row, const std::string& action) {
    return fmt::format(":{}:{}", zsh_text(row.value, ":\\"), action);
}

std::string zsh_action(const option_row& row) {
    return is_file(row) ? "_files" : "";
}

std::string zsh_option(const std::string& name, const option_row& row) {
    const std::string value = row.value.empty() ? "" : zsh_value(row, zsh_action(row));
    const char* const joint = value.empty() || !name.starts_with("--") ? "" : "=";
    return fmt::format(" '{}{}[{}]{}'", name, joint, zsh_text(row.text(), "[]:\\"), value);
}

std::string zsh_options(const std::vector<option_row>& rows) {
    std::string options;
    for (const auto& row : rows)
        for (const auto& name : row.names) options += zsh_option(name, row);
    return options;
}

std::string zsh_argument(const option_row& row, int place, const std::string& action) {
    if (row.repeated) return fmt::format(" '*{}'", zsh_value(row, action));
    return fmt::format(" '{}{}{}'", place, row.required ? "" : ":", zsh_value(row, action));
}

std::string zsh_words(const CLI::App& command, const CLI::App& app) {
    const std::string names = fmt::format("({})", fmt::join(command_names(app), " "));
    std::string words = zsh_options(further_options(command, app));
    int place = 0;
    for (const auto& row : arguments_of(command))
        words += zsh_argument(row, ++place, is_help(command) ? names : zsh_action(row));
    return fmt::format("            {}) _arguments $everywhere{} ;;\n", command.get_name(), words);
}

}  // namespace

std::string bash_completion(const CLI::App& app) {
    return filled(bash_template,
                  {{"@COMMANDS@", fmt::format("{}", fmt::join(command_names(app), " | "))},
                   {"@WORDS@", bash_words_of_all(app)},
                   {"@EVERYWHERE@", fmt::format("{}", fmt::join(names_in(options_of(app)), " "))},
                   {"@VALUES@", bash_values_of_all(app)}});
}

std::string zsh_completion(const CLI::App& app) {
    std::string commands, words;
    for (const auto* command : commands_of(app)) {
        commands += fmt::format(" '{}:{}'", command->get_name(), zsh_text(command->get_description(), ":\\"));
        words += zsh_words(*command, app);
    }
    return filled(
        zsh_template,
        {{"@EVERYWHERE@", zsh_options(options_of(app))}, {"@COMMANDS@", commands}, {"@WORDS@", words}});
}

}  // namespace tolvan::vesk::tool

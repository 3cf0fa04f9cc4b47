#include "options/man_page.hpp"

#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "options/option_table.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr const char* exit_status = R"(.SH EXIT STATUS
.TP
0
Done; also a hub, a subscriber or a server that a signal has ended.
.TP
1
Refused or failed.
.TP
2
Wrong usage.
.TP
3
Timed out.
)";

std::string_view escape_for(char character) {
    switch (character) {
        case '\\':
            return "\\e";
        case '-':
            return "\\-";
        case '\'':
            return "\\(aq";
        case '^':
            return "\\(ha";
        case '~':
            return "\\(ti";
        case '`':
            return "\\(ga";
        default:
            return {};
    }
}

std::string roff(const std::string& text) {
    std::string escaped;
    for (const char character : text) {
        const auto escape = escape_for(character);
        escaped += escape.empty() ? std::string(1, character) : std::string(escape);
        if (character == '\n') escaped += "\\&";  // a line must not begin with a dot
    }
    return "\\&" + escaped;
}

std::string paragraph(const std::string& heading, const std::string& text) {
    return fmt::format(".TP\n\\fB{}\\fR\n{}\n", roff(heading), roff(text));
}

std::string section(const char* title, const std::vector<option_row>& rows) {
    if (rows.empty()) return {};
    std::string text = fmt::format(".SH {}\n", title);
    for (const auto& row : rows) text += paragraph(row.usage(), row.text());
    return text;
}

std::string section_of_commands(const CLI::App& app) {
    const auto commands = commands_of(app);
    if (commands.empty()) return {};
    std::string text = ".SH COMMANDS\n";
    for (const auto* command : commands)
        text += paragraph(man_page_name(*command) + "(1)", command->get_description());
    return text;
}

std::string examples(const CLI::App& app) {
    const std::string footer = app.get_footer();
    return ".SH EXAMPLES\n.EX\n" + roff(footer.substr(footer.find('\n') + 1)) + "\n.EE\n";
}

}  // namespace

std::string man_page_name(const CLI::App& app) {
    return app.get_parent() == nullptr ? app.get_name() : app.get_parent()->get_name() + "-" + app.get_name();
}

std::string man_page(const CLI::App& app) {
    const bool is_whole = app.get_parent() == nullptr;
    return fmt::format(".TH {} 1 \"\" \"vesk " VESK_VERSION "\" \"User Commands\"\n", man_page_name(app)) +
           fmt::format(".SH NAME\n{} \\- {}\n", man_page_name(app), roff(app.get_description())) +
           fmt::format(".SH SYNOPSIS\n{}\n", roff(usage_of(app))) + section_of_commands(app) +
           section("ARGUMENTS", arguments_of(app)) + section("OPTIONS", options_of(app)) +
           (is_whole ? exit_status : "") + examples(app) +
           (is_whole
                ? ""
                : ".SH SEE ALSO\nvesk(1) has the options that all commands take, and the exit status.\n");
}

}  // namespace tolvan::vesk::tool

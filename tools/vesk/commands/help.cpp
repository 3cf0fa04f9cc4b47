#include <memory>
#include <string>

#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "options/help_text.hpp"
#include "options/usage_errors.hpp"
#include "streams/standard_output.hpp"

namespace tolvan::vesk::tool {

void add_help_command(CLI::App& app, chosen_command& chosen) {
    const auto name = std::make_shared<std::string>();
    CLI::App& command = *app.add_subcommand("help", "Print what a command does, its options and examples");
    verbatim(command.add_option("COMMAND", *name, "The command; without it all are listed"));
    add_examples(command, {{"vesk help", "Lists the commands, and the options that all of them take."},
                           {"vesk help serve", "Prints the help text of the command serve."}});
    command.callback([&app, &chosen, name] {
        const CLI::App& subject = name->empty() ? app : command_called(*name, app);
        chosen = [&subject] {
            put_out(help_text(subject));
            return static_cast<int>(done);
        };
    });
}

}  // namespace tolvan::vesk::tool

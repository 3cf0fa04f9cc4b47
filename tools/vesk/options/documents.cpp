#include "options/documents.hpp"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "options/completion.hpp"
#include "options/man_page.hpp"
#include "options/option_table.hpp"

namespace tolvan::vesk::tool {

namespace {

using std::filesystem::path;

void write(const path& file, const std::string& text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file);
    stream << text << std::flush;
    if (!stream)
        throw std::system_error(errno, std::generic_category(), "could not write to " + file.string());
}

void write_man_page(const path& folder, const CLI::App& app) {
    write(folder / "man/man1" / (man_page_name(app) + ".1"), man_page(app));
}

void write_documents(const path& folder, const CLI::App& app) {
    write_man_page(folder, app);
    for (const auto* command : commands_of(app)) write_man_page(folder, *command);
    write(folder / "bash-completion/completions" / app.get_name(), bash_completion(app));
    write(folder / "zsh/site-functions" / ("_" + app.get_name()), zsh_completion(app));
}

}  // namespace

void add_documents_option(CLI::App& app) {
    app.add_option_function<std::string>("--write-documents",
                                         [&app](const std::string& folder) {
                                             write_documents(folder, app);
                                             throw CLI::Success();
                                         })
        ->group("");
}

}  // namespace tolvan::vesk::tool

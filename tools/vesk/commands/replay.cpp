#include <memory>

#include "bus/publication_run.hpp"
#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "options/help_text.hpp"
#include "options/validators.hpp"
#include "replaying/recording_source.hpp"
#include "terminal/progress_bar.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr session::milliseconds progress_interval{100};

class replay_command {
  public:
    replay_command(const common_options& common, const recording_source::options& options)
        : process(common, options.loop ? done : failed),
          source(process, options),
          publication(process, common, {.seen = source.published_beginnings()}, source) {
        show_progress();
    }

    int run() {
        const int status = publication.run();
        bar.clear();
        return status;
    }

  private:
    void show_progress() {
        if (const auto share = source.share()) bar.show("replay", *share);
        next_look = process.after(progress_interval, [this] { show_progress(); });
    }

    session process;
    const progress_bar bar;
    recording_source source;
    publication_run publication;
    session::timer next_look;
};

}  // namespace

void add_replay_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<recording_source::options>();
    CLI::App& command = *app.add_subcommand(
        "replay",
        "Publish a recording of \"vesk record\" again, with its timing; done when every message has "
        "come back from the hub");
    verbatim(command.add_option("FILE", options->file, "The recording; \"-\" is stdin"))->required();
    auto* const speed =
        command.add_option("--speed", options->speed, "So many times as fast as it was recorded")
            ->transform(number_from("a factor", 0.001, 1000.0))
            ->type_name("X")
            ->default_str("1");
    command.add_flag("--fast", options->fast, "As fast as the hub takes it")->excludes(speed);
    verbatim(command.add_option("--topic", options->topics,
                                "Only this topic and those that go on after it with a \".\"; may be given "
                                "more than once"))
        ->type_size(1)
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->type_name("TOPIC")
        ->default_str("all");
    verbatim(command.add_option("--prefix", options->prefix, "What to put in front of each topic"))
        ->check(without(":"))
        ->type_name("P")
        ->default_str("nothing");
    command.add_flag("--loop", options->loop,
                     "From the beginning again, until a signal; between two rounds there is the silence with "
                     "which the recording begins");
    add_examples(command, {{"vesk replay plant.jsonl --speed 10",
                            "Publishes a recording ten times as fast as it was."},
                           {"vesk replay plant.jsonl --topic plant.pump --prefix trial.",
                            "Publishes one topic of it, under another name."}});
    command.callback([&common, &chosen, options] {
        if (options->loop && options->file == "-")
            throw CLI::ValidationError("--loop", "needs a file; stdin cannot be read again");
        chosen = [&common, options] { return replay_command(common, *options).run(); };
    });
}

}  // namespace tolvan::vesk::tool

#include <algorithm>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "observing/observer.hpp"
#include "observing/rate_table.hpp"
#include "observing/request_pairs.hpp"
#include "observing/topic_rates.hpp"
#include "options/help_text.hpp"
#include "options/validators.hpp"
#include "streams/standard_output.hpp"
#include "terminal/printable.hpp"
#include "terminal/quantities.hpp"
#include "terminal/screen.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr seconds sight_patience{5};

struct top_options {
    std::vector<std::string> topics;
    seconds interval{1};
    std::size_t depth = 0;  ///< 0: whole topics
    bool once = false;
    bool json = false;
};

/// The traffic of the chosen topics, from the moment on when the hub has them.
class observed_traffic {
  public:
    observed_traffic(event_process& process, const common_options& common, const top_options& options,
                     std::function<void()> when_ready)
        : depth(options.depth),
          requests(options.topics.empty() ? std::make_unique<request_pairs>(
                                                request_pairs::usual_reply_patience, [](const auto&) {})
                                          : nullptr),
          ready(std::move(when_ready)),
          observed(
              process, common, options.topics,
              {.message = [this](const auto& message) { feed(message); }, .ready = [this] { begin(); }}) {}

    /// What has come since the last call.
    topic_rates::interval take_interval() {
        const auto now = topic_rates::clock::now();
        if (requests) requests->expire(now);
        return rates ? rates->take_interval(now) : topic_rates::interval{};
    }

    /// None when only some topics are looked at, for answers come on others.
    std::optional<std::size_t> requests_in_flight() const {
        return requests ? std::optional(requests->in_flight()) : std::nullopt;
    }

    std::string what_is_missing() const { return observed.what_is_missing(); }

  private:
    void begin() {
        if (rates) return;
        rates.emplace(depth, topic_rates::clock::now());
        ready();
    }

    void feed(const wire::hub_message& message) {
        if (!rates) return;
        const auto now = topic_rates::clock::now();
        rates->feed(message, now);
        if (requests) requests->feed(message, now);
    }

    const std::size_t depth;
    std::optional<topic_rates> rates;
    const std::unique_ptr<request_pairs> requests;
    const std::function<void()> ready;
    observer observed;
};

class top_once {
  public:
    top_once(const common_options& common, const top_options& given)
        : options(given), process(failed), traffic(process, common, options, [this] { begin(); }) {
        next = process.after(sight_patience, [this] {
            process.finish(timed_out, fmt::format("{} within {:g} s", traffic.what_is_missing(),
                                                  sight_patience.count()));
        });
    }

    int run() { return process.run(); }

  private:
    void begin() {
        next = process.after(options.interval, [this] {
            print();
            process.finish(done);
        });
    }

    void print() {
        auto interval = traffic.take_interval();
        sort_first(interval.rows, interval.rows.size(), usual_order);
        put_out(options.json ? as_object(interval) : as_table(interval));
    }

    std::string as_object(const topic_rates::interval& interval) const {
        return as_variant(interval, traffic.requests_in_flight()).toJson() + "\n";
    }

    std::string as_table(const topic_rates::interval& interval) const {
        std::string table =
            rate_summary(interval, traffic.requests_in_flight()) + "\n\n" + rate_heading() + "\n";
        for (const auto& row : interval.rows) table += rate_line(row) + "\n";
        return table;
    }

    const top_options& options;
    event_process process;
    observed_traffic traffic;
    event_process::timer next;
};

/// Which rows of the table a person wants to see.
class table_choice {
  public:
    std::size_t column = usual_order;
    std::string filter;  ///< part of the topics' names
    std::size_t first = 0;
    bool typing = false;  ///< the filter

    /// Takes a key; gives whether it means the end.
    bool take(int key, std::size_t page) {
        if (typing) return type(key), false;
        if (key == 'q') return true;
        if (key == '/') typing = true;
        if (key == screen::escape) filter.clear();
        choose_column(key);
        scroll(key, std::max<std::size_t>(page, 1));
        return false;
    }

    std::vector<topic_rates::row> rows_of(const std::vector<topic_rates::row>& all) const {
        std::vector<topic_rates::row> wanted;
        std::copy_if(all.begin(), all.end(), std::back_inserter(wanted),
                     [this](const auto& row) { return row.topic.find(filter) != std::string_view::npos; });
        return wanted;
    }

  private:
    void type(int key) {
        if (key == screen::enter || key == screen::escape) typing = false;
        if (key == screen::escape) filter.clear();
        if (key == screen::erase) erase_character();
        if (key >= ' ' && key < screen::up) filter += static_cast<char>(key);
        first = 0;
    }

    void erase_character() {
        const auto continues = [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U; };
        while (!filter.empty() && continues(filter.back())) filter.pop_back();
        if (!filter.empty()) filter.pop_back();
    }

    void choose_column(int key) {
        const auto chosen = std::find_if(rate_columns.begin(), rate_columns.end(),
                                         [key](const auto& each) { return each.key == key; });
        if (chosen != rate_columns.end()) column = static_cast<std::size_t>(chosen - rate_columns.begin());
    }

    void scroll(int key, std::size_t page) {
        if (key == screen::up) first -= std::min<std::size_t>(first, 1);
        if (key == screen::page_up) first -= std::min(first, page);
        if (key == screen::down) ++first;
        if (key == screen::page_down) first += page;
        if (key == screen::home) first = 0;
    }
};

class live_top {
  public:
    live_top(const common_options& common, const top_options& given)
        : options(given),
          process(done),
          shown(process, {.typed = [this](int key) { take(key); },
                          .resized = [this] { draw(); },
                          .told = [this](const std::string& text) { note(text); }}),
          traffic(process, common, options, [this] { refresh(); }) {
        if (state != at_first) hint = std::exchange(state, at_first);
        refresh();
    }

    int run() { return process.run(); }

  private:
    static constexpr const char* at_first = "connecting";
    static constexpr int lines_above = 3, lines_below = 1;

    std::size_t page() const {
        return static_cast<std::size_t>(std::max(0, shown.lines() - lines_above - lines_below));
    }

    void refresh() {
        interval = traffic.take_interval();
        next = process.after(options.interval, [this] { refresh(); });
        draw();
    }

    void note(const std::string& text) {
        state = text;
        draw();
    }

    void take(int key) {
        if (choice.take(key, page())) return process.finish(done);
        draw();
    }

    void draw() {
        auto rows = choice.rows_of(interval.rows);
        choice.first = std::min(choice.first, rows.size() - std::min(rows.size(), page()));
        sort_first(rows, choice.first + page(), choice.column);
        shown.put(0, "vesk top: " + rate_summary(interval, traffic.requests_in_flight()));
        shown.put(1, state_line(rows.size()));
        shown.put(2, rate_heading(), screen::style::emphasized);
        for (std::size_t line = 0; line < page(); ++line) {
            const std::size_t at = choice.first + line;
            shown.put(lines_above + static_cast<int>(line), at < rows.size() ? rate_line(rows[at]) : "");
        }
        shown.put(shown.lines() - 1, key_line(), screen::style::emphasized);
        shown.show();
    }

    std::string state_line(std::size_t rows) const {
        std::string line = fmt::format("{}; every {}; sorted by {}", printable(state), span(options.interval),
                                       rate_columns.at(choice.column).name);
        if (!choice.filter.empty())
            line += fmt::format("; topics with \"{}\": {}", printable(choice.filter), rows);
        return hint.empty() ? line : line + "; " + printable(hint);
    }

    std::string key_line() const {
        if (choice.typing) return fmt::format("/{}_  Enter: keep, Esc: all topics", printable(choice.filter));
        std::string line = "q quit, / filter, arrows scroll; sort:";
        for (const auto& column : rate_columns) line += fmt::format(" {} {}", column.key, column.name);
        return line;
    }

    const top_options& options;
    event_process process;
    table_choice choice;
    std::string state = at_first;
    std::string hint;  ///< about the topics that were asked for
    topic_rates::interval interval;
    event_process::timer next;
    screen shown;
    observed_traffic traffic;
};

int run_top(const common_options& common, const top_options& options) {
    if (options.once) return top_once(common, options).run();
    try {
        return live_top(common, options).run();
    } catch (const no_screen& reason) {
        throw std::runtime_error(std::string(reason.what()) + "; --once prints a table without one");
    }
}

}  // namespace

void add_top_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<top_options>();
    CLI::App& command =
        *app.add_subcommand("top", "Show how much comes on each topic, and how old it is, as a live table");
    verbatim(command.add_option("TOPIC", options->topics,
                                "Topics; each stands for all that go on after it with a \".\"; everything "
                                "when left out"));
    add_seconds(command, "--interval", options->interval, "How long rates are measured each time")
        ->default_str("1");
    command.add_option("--depth", options->depth, "Take topics with the same first N segments together")
        ->transform(number_from("a number of segments", std::size_t{1}, std::size_t{1000}))
        ->type_name("N")
        ->default_str("all");
    auto* const once =
        command.add_flag("--once", options->once, "Print one interval as a plain table, and end");
    command.add_flag("--json", options->json, "With --once: print it as one JSON object")->needs(once);
    add_examples(command,
                 {{"vesk top plant --depth 2", "Shows the traffic below plant, by the first two segments."},
                  {"vesk top --once --json", "Prints one second's traffic as a JSON object."}});
    command.callback(
        [&common, &chosen, options] { chosen = [&common, options] { return run_top(common, *options); }; });
}

}  // namespace tolvan::vesk::tool

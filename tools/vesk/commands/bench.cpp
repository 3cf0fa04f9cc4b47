#include <algorithm>
#include <cerrno>
#include <deque>
#include <fstream>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include <tolvan/relay/hub.hpp>
#include <tolvan/vesk/toolkit/hub_presence.hpp>

#include "bench/phases.hpp"
#include "bench/report.hpp"
#include "bench/svg.hpp"
#include "bus/bus_environment.hpp"
#include "bus/session.hpp"
#include "commands/commands.hpp"
#include "exit_code.hpp"
#include "options/help_text.hpp"
#include "options/validators.hpp"
#include "streams/standard_output.hpp"
#include "terminal/hub_notes.hpp"
#include "terminal/progress_bar.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr seconds patience{5};  // with a hub that does not answer, and while nothing comes back
constexpr session::milliseconds end_look_interval{50};
constexpr std::uint64_t largest_size = relay::hub::largest_message - 1024;  // requests have an envelope

// A process gets one delivery a millisecond. A request is three: itself, its acknowledgement, its reply.
constexpr unsigned most_deliveries_a_second = 1000;
constexpr unsigned most_round_trips_a_second = 250;

struct bench_options {
    unsigned rate = 500;
    std::uint64_t size = 100;
    std::optional<std::uint64_t> count;  ///< without it each phase has its own
    bool own_hub = false;
    bool json = false;
    std::string svg_file;

    bench_load load(std::uint64_t usual_count, unsigned most_a_second = most_deliveries_a_second) const {
        return {count.value_or(usual_count), static_cast<double>(std::min(rate, most_a_second)),
                std::string(static_cast<std::size_t>(size), 'x')};
    }
};

std::unique_ptr<relay::hub> own_hub(const bench_options& options) {
    if (!options.own_hub) return nullptr;
    check_environment();
    return std::make_unique<relay::hub>(relay::hub::options{"tcp://127.0.0.1:*", "tcp://127.0.0.1:*"});
}

common_options with_endpoints_of(const relay::hub* hub, common_options common) {
    if (hub == nullptr) return common;
    common.pub_endpoint = hub->pub_endpoint();
    common.sub_endpoint = hub->sub_endpoint();
    return common;
}

// Throws std::system_error that names the file when `stream` has failed.
void require(const std::ofstream& stream, const std::string& file) {
    if (!stream) throw std::system_error(errno, std::generic_category(), "could not write to '" + file + "'");
}

class bench_command {
  public:
    bench_command(const common_options& common, const bench_options& given)
        : options(given),
          hub(own_hub(options)),
          endpoints(with_endpoints_of(hub.get(), common)),
          process(endpoints, failed),
          notes(process, endpoints, hub_notes::detail::waiting_only) {
        report.size = options.size;
        phases.push_back(std::make_unique<throughput_phase>(process, options.load(200'000)));
        phases.push_back(std::make_unique<latency_phase>(process, options.load(10'000)));
        phases.push_back(
            std::make_unique<round_trip_phase>(process, options.load(2'500, most_round_trips_a_second)));
        presence.emplace(process.shared_loop(), toolkit::hub_presence::callbacks{.ready = [this] {
                             notes.ready();
                             hub_deadline.reset();
                             start_phase();
                         }});
        hub_deadline = process.after(patience, [this] {
            process.finish(timed_out, fmt::format("no answer from the hub at {} within {:g} s",
                                                  endpoints.hub(), patience.count()));
        });
    }

    int run() {
        const int status = process.run();
        bar.clear();
        if (status == failed) tell("interrupted while measuring: " + phases.front()->title());
        return status == done ? tell_report() : status;
    }

  private:
    void start_phase() {
        if (phases.empty()) return process.finish(done);
        settled = 0;
        progress_at = process.loop().now();
        phases.front()->start();
        look();
    }

    void look() {
        bench_phase& phase = *phases.front();
        bar.show(phase.title(), phase.settled_share());
        if (phase.complete()) return end_phase();
        if (stalled(phase)) return give_up();
        next_look = process.after(end_look_interval, [this] { look(); });
    }

    bool stalled(const bench_phase& phase) {
        const auto now = process.loop().now();
        if (std::exchange(settled, phase.settled()) != settled) progress_at = now;
        return now - progress_at > patience;
    }

    void end_phase() {
        take_result();
        start_phase();
    }

    void give_up() {
        tell(fmt::format("{}: nothing has come back for {:g} s, giving up", phases.front()->title(),
                         patience.count()));
        take_result();
        process.finish(done);
    }

    void take_result() {
        report.phases.push_back(phases.front()->result());
        phases.pop_front();
        for (auto& times : report.phases.back().times) std::sort(times.ms.begin(), times.ms.end());
    }

    int tell_report() const {
        put_out(options.json ? as_json(report) : as_table(report));
        if (!options.svg_file.empty()) write_svg();
        return tell_losses() ? failed : done;
    }

    void write_svg() const {
        std::ofstream file(options.svg_file);
        file << as_svg(report) << std::flush;
        require(file, options.svg_file);
    }

    bool tell_losses() const {
        bool lost = false;
        for (const auto& phase : report.phases) {
            if (phase.lost == 0) continue;
            tell(fmt::format("{}: {} of {} messages are lost", phase.title, phase.lost, phase.sent));
            lost = true;
        }
        return lost;
    }

    const bench_options& options;
    const std::unique_ptr<relay::hub> hub;
    const common_options endpoints;
    session process;
    hub_notes notes;
    const progress_bar bar;
    std::deque<std::unique_ptr<bench_phase>> phases;  ///< the one that runs, and those to come
    bench_report report;
    std::optional<toolkit::hub_presence> presence;
    session::timer hub_deadline;
    session::timer next_look;
    std::uint64_t settled = 0;  ///< messages of the phase at the last look
    session::milliseconds progress_at{0};
};

int run_bench(const common_options& common, const bench_options& options) {
    // Before the measuring, and without a change to what is there.
    if (!options.svg_file.empty()) require(std::ofstream(options.svg_file, std::ios::app), options.svg_file);
    return bench_command(common, options).run();
}

}  // namespace

void add_bench_command(CLI::App& app, const common_options& common, chosen_command& chosen) {
    const auto options = std::make_shared<bench_options>();
    CLI::App& command = *app.add_subcommand(
        "bench", "Measure throughput, latency and the round trip of requests through the hub");
    command
        .add_option("--rate", options->rate,
                    "Messages a second while latency is measured; the bus delivers one a "
                    "millisecond, and near that never makes up for a delay. Requests are three deliveries "
                    "each, and go out at 250 a second at most")
        ->transform(number_from("a number of messages a second", 1U, most_deliveries_a_second))
        ->type_name("N")
        ->capture_default_str();
    command.add_option("--size", options->size, "Bytes of data a message")
        ->transform(number_from("a number of bytes", std::uint64_t{0}, largest_size))
        ->type_name("BYTES")
        ->capture_default_str();
    command
        .add_option("--count", options->count,
                    "Messages in each of the phases throughput, latency and round trip")
        ->transform(number_from("a number of messages", std::uint64_t{1}, std::uint64_t{10'000'000}))
        ->type_name("N")
        ->default_str("200000, 10000 and 2500");
    command.add_flag("--own-hub", options->own_hub,
                     "Measure a hub inside this process instead of the one at the endpoints");
    command.add_flag("--json", options->json, "Print one JSON object");
    verbatim(command.add_option("--svg", options->svg_file, "Draw histograms of the times into this file"))
        ->check(not_empty)
        ->type_name("FILE")
        ->default_str("no drawing");
    add_examples(command,
                 {{"vesk bench --own-hub", "Measures a hub inside this process, in some 40 seconds."},
                  {"vesk bench --size 10000 --rate 200 --svg times.svg",
                   "Measures the hub with messages of 10 kB, and draws the times."}});
    command.callback(
        [&common, &chosen, options] { chosen = [&common, options] { return run_bench(common, *options); }; });
}

}  // namespace tolvan::vesk::tool

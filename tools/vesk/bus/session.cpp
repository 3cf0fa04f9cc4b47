#include "bus/session.hpp"

#include <array>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include "bus/bus_environment.hpp"
#include "terminal/abilities.hpp"
#include "terminal/printable.hpp"

namespace tolvan::vesk::tool {

namespace {

lumo::v1::sink_registration log_to_stderr(int level) {
    const auto colours =
        shows_colours(STDERR_FILENO) ? spdlog::color_mode::automatic : spdlog::color_mode::never;
    const auto logger = spdlog::stderr_color_st("vesk", colours);
    logger->set_pattern("%H:%M:%S.%e %^%l%$ %v");
    logger->set_level(spdlog::level::trace);
    return lumo::v1::add_sink(level, [logger](const lumo::v1::log_entry& entry) {
        static constexpr std::array shown_as = {spdlog::level::err, spdlog::level::warn, spdlog::level::info,
                                                spdlog::level::debug};
        logger->log(shown_as.at(static_cast<std::size_t>(entry.severity)), "{}:{} {}: {}", entry.file,
                    entry.line, entry.function, shown_on(STDERR_FILENO, entry.text));
    });
}

v1::conf_t configuration(const common_options& common) {
    prepare_environment(common);
    check_environment();
    v1::conf_t conf;
    conf.pub_endpoint = common.pub_endpoint;
    conf.sub_endpoint = common.sub_endpoint;
    return conf;
}

}  // namespace

session::session(const common_options& common, int code_on_signal)
    : event_process(code_on_signal),
      log(log_to_stderr(common.log_level)),
      connection(configuration(common), shared_loop()) {}

}  // namespace tolvan::vesk::tool

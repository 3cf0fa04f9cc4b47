// What each of the three programs begins with.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/lumo/v1/stderr_sink.hpp>
#include <tolvan/vesk/v1/connection.hpp>

namespace thermostat {

/// The endpoint in that variable of the environment, or the one that `vesk hub` has without options.
inline std::string endpoint(const char* variable, const std::string& socket) {
    if (const char* given = std::getenv(variable)) return given;
    const char* folder = std::getenv("XDG_RUNTIME_DIR");
    return "ipc://" + (folder ? std::string(folder) + "/vesk" : "/tmp/vesk-" + std::to_string(::getuid())) +
           "/" + socket;
}

/// A process on the bus, whose warnings and errors are seen on stderr.
struct process {
    tolvan::lumo::v1::sink_registration log = tolvan::lumo::v1::log_to_stderr();
    std::shared_ptr<tolvan::asio_event_loop> loop = std::make_shared<tolvan::asio_event_loop>();
    tolvan::vesk::v1::connection bus{{.pub_endpoint = endpoint("VESK_PUB_ENDPOINT", "pub"),
                                      .sub_endpoint = endpoint("VESK_SUB_ENDPOINT", "sub")},
                                     loop};
};

}  // namespace thermostat

// What each of the three programs begins with.
#pragma once

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include <unistd.h>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/lumo/v1/stderr_sink.hpp>
#include <tolvan/vesk/toolkit/hub_presence.hpp>
#include <tolvan/vesk/v1/connection.hpp>

namespace thermostat {

/// Where `vesk hub` has its sockets without options, or, when it is not there, where the hub that is a
/// service has them.
inline std::string hub_folder() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string own =
        runtime ? std::string(runtime) + "/vesk" : "/tmp/vesk-" + std::to_string(::getuid());
    const bool has_hub = ::access((own + "/pub").c_str(), F_OK) == 0;
    return !has_hub && ::access("/run/vesk", X_OK) == 0 ? "/run/vesk" : own;
}

/// The endpoint in that variable of the environment, or that socket of the hub's folder.
inline std::string endpoint(const char* variable, const std::string& socket) {
    const char* given = std::getenv(variable);
    return given ? given : "ipc://" + hub_folder() + "/" + socket;
}

/// A process on the bus. What goes wrong is seen on stderr, and so is a hub that is not there, which is no
/// error for the bus.
struct process {
    process() {
        hub.wait_until_ready(
            std::chrono::seconds(1), [] {}, [this] { tell("waiting for the hub at " + sub_endpoint); });
    }

    static void tell(const std::string& text) { std::cerr << text + '\n'; }

    tolvan::lumo::v1::sink_registration log = tolvan::lumo::v1::log_to_stderr();
    std::shared_ptr<tolvan::asio_event_loop> loop = std::make_shared<tolvan::asio_event_loop>();
    std::string sub_endpoint = endpoint("VESK_SUB_ENDPOINT", "sub");
    tolvan::vesk::v1::connection bus{
        {.pub_endpoint = endpoint("VESK_PUB_ENDPOINT", "pub"), .sub_endpoint = sub_endpoint}, loop};
    tolvan::vesk::toolkit::hub_presence hub{
        loop, {.lost = [] { tell("lost the hub"); }, .back = [] { tell("the hub is back"); }}};
};

}  // namespace thermostat

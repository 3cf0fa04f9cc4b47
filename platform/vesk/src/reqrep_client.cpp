#include <tolvan/lumo/v1/log.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>

#include "installed.hpp"

namespace tolvan::vesk::v1 {

std::shared_ptr<reqrep_client::backend> reqrep_client::backend::instance;
reqrep_client::backend::~backend() = default;

reqrep_client::request_timeout::request_timeout(unsigned short id)
    : std::runtime_error("request " + std::to_string(id) + " timed out") {}

reqrep_client::~reqrep_client() {
    cancel_all_requests();
}

unsigned short reqrep_client::request(const std::string& target, const std::string& command,
                                      const std::string& payload, bool reply_needed,
                                      reply_callback&& callback) {
    if (!callback)
        LUMO_LOG(lumo::v1::warning, "platform/vesk/reqrep_client", "request",
                 "request for {}.{} has an empty callback; please fix your code", target, command);
    return installed(backend::instance, "reqrep_client::request")
        ->request(this, target, command, payload, reply_needed, std::move(callback));
}

void reqrep_client::cancel_request(unsigned short id) {
    if (const auto active = backend::instance) active->cancel_request(this, id);
}

void reqrep_client::cancel_all_requests() {
    if (const auto active = backend::instance) active->cancel_all_requests(this);
}

void reqrep_client::set_timeout(std::chrono::milliseconds timeout) {
    installed(backend::instance, "reqrep_client::set_timeout")->set_timeout(timeout);
}

}  // namespace tolvan::vesk::v1

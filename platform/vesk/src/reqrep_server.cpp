#include <tolvan/lumo/v1/log.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>

#include "installed.hpp"

namespace tolvan::vesk::v1 {

std::shared_ptr<reqrep_server::backend> reqrep_server::backend::instance;
reqrep_server::backend::~backend() = default;

reqrep_server::~reqrep_server() {
    alive.reset();
    unset_all_handlers();
}

void reqrep_server::set_command_handler(const std::string& command, bool reply_needed,
                                        payload_deserializer deserializer, command_handler&& handler) {
    const std::string& identity = get_uuid_or_luid();
    if (identity.find_first_of(".:") != std::string::npos)
        LUMO_LOG(lumo::v1::warning, "platform/vesk/reqrep_server", "set_command_handler",
                 "server_id={} contains “.” or “:”, so no request for command={} can be answered; please fix "
                 "your code",
                 identity, command);
    installed(backend::instance, "reqrep_server::set_command_handler")
        ->set_command_handler(this, command, reply_needed, deserializer, std::move(handler));
}

void reqrep_server::unset_all_handlers() {
    if (const auto active = backend::instance) active->unset_all_handlers(this);
}

reqrep_server::request::request(std::shared_ptr<request_impl_base> accepted)
    : received(std::move(accepted)) {}

std::shared_ptr<reqrep_server::request_impl_base> reqrep_server::request::shared() const {
    if (!received) throw std::logic_error("reqrep_server::request: used after it was moved from");
    return received;
}

void reqrep_server::request::reply(const std::string& json) const {
    installed(backend::instance, "reqrep_server::request::reply")->reply(shared(), &json, nullptr, nullptr);
}

void reqrep_server::request::fail(const std::exception& failure) const {
    installed(backend::instance, "reqrep_server::request::fail")
        ->reply(shared(), nullptr, &typeid(failure), failure.what());
}

const std::string& reqrep_server::request::get_reply_topic() const {
    return shared()->get_reply_topic();
}

}  // namespace tolvan::vesk::v1

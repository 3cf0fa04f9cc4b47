#include <cstdlib>
#include <stdexcept>

#include <tolvan/vesk/hub/connection_impl.hpp>
#include <tolvan/vesk/hub/publisher_impl.hpp>
#include <tolvan/vesk/hub/reqrep_client_impl.hpp>
#include <tolvan/vesk/hub/reqrep_server_impl.hpp>
#include <tolvan/vesk/hub/subscriber_impl.hpp>

namespace tolvan::vesk::hub {

connection_impl::connection_impl() {
    ::setenv("ZSYS_SIGHANDLER", "false", 1);
}

void connection_impl::initialize(v1::conf_t&& conf) {
    if (conf.pub_endpoint.empty() || conf.sub_endpoint.empty())
        throw std::runtime_error("incomplete configuration provided for hub-based configuration");
    // The later ones are bus users themselves, and stand on the earlier ones.
    v1::subscriber::backend::instance = std::make_shared<subscriber_impl>(event_loop, conf.sub_endpoint);
    v1::publisher::backend::instance =
        std::make_shared<publisher_impl>(conf.pub_endpoint, conf.block_on_first_publish);
    v1::reqrep_client::backend::instance = std::make_shared<reqrep_client_impl>(event_loop);
    v1::reqrep_server::backend::instance = std::make_shared<reqrep_server_impl>();
}

void connection_impl::set_service_name(const std::string& /*name*/) {}

}  // namespace tolvan::vesk::hub

/// The library's one exported function: stores a new connection object, owned by the caller, in `*result`.
extern "C" __attribute__((visibility("default"))) void tolvan_vesk_v1_connection_impl(
    tolvan::vesk::v1::connection::impl** result) {
    *result = new tolvan::vesk::hub::connection_impl;
}

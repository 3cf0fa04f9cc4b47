#include "hub/status_service.hpp"

#include <utility>

#include <tolvan/relay/accept_guard.hpp>

namespace tolvan::vesk::tool {

namespace {

hub_sample look_at(const relay::hub& hub) {
    return {0, hub.read_counters(), relay::refused_connections(), usage_of_this_process()};
}

status_history begun(const relay::hub& hub, std::int64_t queue_bytes) {
    status_history history(
        {hub.pub_endpoint(), hub.sub_endpoint(), queue_bytes, std::chrono::system_clock::now()});
    history.add(look_at(hub), status_history::clock::now());
    return history;
}

http_connection::answerer answers(http_site site) {
    return [site = std::move(site), answer = load_http_answer()](const std::string& request) {
        std::string response;
        answer(site, request, response);
        return response;
    };
}

}  // namespace

status_service::status_service(const relay::hub& watched, std::int64_t queue_bytes, http_listener listener,
                               bool any_host)
    : hub(watched),
      history(begun(hub, queue_bytes)),
      site(history.status()),
      server(std::move(listener),
             answers({[this](const std::string& path) { return site.document_at(path); }, any_host})) {}

void status_service::look() {
    history.add(look_at(hub), status_history::clock::now());
    site.show(history.status());
}

}  // namespace tolvan::vesk::tool

#pragma once

#include <tolvan/relay/hub.hpp>

#include "http/http_server.hpp"
#include "hub/status_site.hpp"

namespace tolvan::vesk::tool {

/// Looks at a hub and has pages about it served. Every member is to be called on the thread that made the
/// hub.
class status_service {
  public:
    /// `any_host`: see `http_site`. Throws std::runtime_error.
    status_service(const relay::hub& watched, std::int64_t queue_bytes, http_listener listener,
                   bool any_host);

    /// Takes a look, for pages to tell of; to be called once a second.
    void look();

  private:
    const relay::hub& hub;
    status_history history;
    status_site site;
    http_server server;
};

}  // namespace tolvan::vesk::tool

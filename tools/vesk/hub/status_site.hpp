#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "http/http_answer.hpp"
#include "hub/status_history.hpp"

namespace tolvan::vesk::tool {

/// The pages about a hub: "/", "/status.json", "/metrics" and "/healthz". One thread says how the hub stands,
/// another asks for pages.
class status_site {
  public:
    using status_pointer = std::shared_ptr<const hub_status>;

    explicit status_site(status_pointer first) : newest(std::move(first)) {}

    /// From now on pages are about this.
    void show(status_pointer status);

    /// The page at that path; nothing where there is none. To be called on one thread.
    std::optional<http_document> document_at(const std::string& path);

  private:
    status_pointer take_newest();
    void forget_what_is_old(const status_pointer& status);

    std::mutex guard;
    status_pointer newest;
    status_pointer written_about;
    hub_status::clock::time_point written_at{};
    std::map<std::string, http_document> written;  ///< by path; whoever asks often costs no more than copies
};

}  // namespace tolvan::vesk::tool

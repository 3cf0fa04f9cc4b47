#include "hub/status_site.hpp"

#include "hub/status_formats.hpp"
#include "hub/status_page.hpp"

namespace tolvan::vesk::tool {

namespace {

// Also when the hub is not looked at any more: then the page says so.
constexpr std::chrono::seconds longest_kept{1};

constexpr const char* plain_text = "text/plain; charset=utf-8";

http_document health_of(const hub_status& status) {
    if (const auto trouble = status.trouble(hub_status::clock::now()))
        return {plain_text, *trouble + "\n", 503};
    return {plain_text, "ok\n"};
}

std::optional<http_document> write(const std::string& path, const hub_status& status) {
    if (path == "/")
        return http_document{"text/html; charset=utf-8", as_page(status, hub_status::clock::now())};
    if (path == "/status.json") return http_document{"application/json", as_json(status)};
    if (path == "/metrics")
        return http_document{"text/plain; version=0.0.4; charset=utf-8", as_metrics(status)};
    return std::nullopt;
}

}  // namespace

void status_site::show(status_pointer status) {
    const std::lock_guard lock(guard);
    newest.swap(status);
}

status_site::status_pointer status_site::take_newest() {
    const std::lock_guard lock(guard);
    return newest;
}

void status_site::forget_what_is_old(const status_pointer& status) {
    const auto now = hub_status::clock::now();
    if (status == written_about && now - written_at < longest_kept) return;
    written.clear();
    written_about = status;
    written_at = now;
}

std::optional<http_document> status_site::document_at(const std::string& path) {
    const status_pointer status = take_newest();
    if (path == "/healthz") return health_of(*status);
    forget_what_is_old(status);
    if (const auto known = written.find(path); known != written.end()) return known->second;
    auto document = write(path, *status);
    if (document) written.emplace(path, *document);
    return document;
}

}  // namespace tolvan::vesk::tool

// A library of its own, loaded by whoever serves a page. It exports one function.
#include "http/http_answer.hpp"

#include <algorithm>

#include <arpa/inet.h>
#include <httplib.h>
#include <strings.h>

namespace tolvan::vesk::tool {

namespace {

using handled = httplib::Server::HandlerResponse;

constexpr const char* plain_text = "text/plain; charset=utf-8";

// The page has its style and its script in itself, and asks nobody but this server for anything.
const httplib::Headers common_headers = {
    {"Cache-Control", "no-store"},
    {"Content-Security-Policy",
     "default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; img-src data:; "
     "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Referrer-Policy", "no-referrer"},
    {"X-Content-Type-Options", "nosniff"},
};

/// A request that is there as a whole, and a response that grows.
class texts : public httplib::Stream {
  public:
    explicit texts(const std::string& from) : request(from) {}

    const std::string& written() const { return response; }

    bool is_readable() const override { return true; }
    bool is_writable() const override { return true; }
    ssize_t read(char* to, std::size_t size) override {
        const std::size_t taken = request.copy(to, size, position);
        position += taken;
        return static_cast<ssize_t>(taken);
    }
    ssize_t write(const char* from, std::size_t size) override {
        response.append(from, size);
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return -1; }

  private:
    const std::string& request;
    std::size_t position = 0;
    std::string response;
};

// "name:port", "1.2.3.4", "[::1]:80"; without what stands behind the last colon that is not inside brackets.
std::string without_port(const std::string& host) {
    const auto colon = host.rfind(':');
    const auto bracket = host.rfind(']');
    const bool has_port = colon != std::string::npos && (bracket == std::string::npos || bracket < colon);
    return has_port ? host.substr(0, colon) : host;
}

bool is_address_or_localhost(const std::string& host) {
    in_addr ipv4{};
    return host.empty() || host.starts_with('[') || ::strcasecmp(host.c_str(), "localhost") == 0 ||
           ::inet_pton(AF_INET, host.c_str(), &ipv4) == 1;
}

http_document document_for(const http_site& site, const httplib::Request& request) {
    if (!site.any_host && !is_address_or_localhost(without_port(request.get_header_value("Host"))))
        return {plain_text, "this page answers to addresses and localhost only\n", 403};
    if (request.method != "GET" && request.method != "HEAD") return {plain_text, "GET and HEAD only\n", 405};
    return site.document_at(request.path).value_or(http_document{plain_text, "no such page\n", 404});
}

// Both would let a small request make much work: compression, and the same bytes many times over.
void forget_costly_wishes(httplib::Request& request) {
    request.headers.erase("Accept-Encoding");
    request.ranges.clear();
}

/// Answers one request of which nothing but its head is read.
class answering : private httplib::Server {
  public:
    explicit answering(const http_site& site) {
        set_default_headers(common_headers);
        set_pre_routing_handler([&site](const httplib::Request& request, httplib::Response& response) {
            const http_document document = document_for(site, request);
            response.status = document.status;
            if (document.status == 405) response.set_header("Allow", "GET, HEAD");
            response.set_content(document.body, document.type);
            return handled::Handled;
        });
    }

    std::string answer_to(const std::string& request) {
        texts stream(request);
        bool closed = false;
        process_request(stream, true, closed, forget_costly_wishes);
        return stream.written();
    }
};

}  // namespace

}  // namespace tolvan::vesk::tool

extern "C" __attribute__((visibility("default"))) void vesk_tool_http_answer(
    const tolvan::vesk::tool::http_site& site, const std::string& request, std::string& response) {
    response = tolvan::vesk::tool::answering(site).answer_to(request);
}

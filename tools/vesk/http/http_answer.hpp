#pragma once

#include <functional>
#include <optional>
#include <string>

namespace tolvan::vesk::tool {

/// What a site has at a path.
struct http_document {
    std::string type;  ///< as in "Content-Type"
    std::string body;
    int status = 200;
};

/// What there is to answer with.
struct http_site {
    /// The document at a path such as "/metrics"; nothing where there is none.
    std::function<std::optional<http_document>(const std::string& path)> document_at;
    /// Whether it answers to any name. Otherwise a request has to name an address or "localhost": a page from
    /// elsewhere whose name was made to lead here would read along in somebody's browser.
    bool any_host = false;
};

/// Sets the response to a request: to its head, up to the empty line. Documents can be had by GET and HEAD.
using http_answer = void(const http_site& site, const std::string& request, std::string& response);

/// Loads that function, from the library that is made for it: with it come a library for TLS and others,
/// which would double the time in which a `vesk` starts that serves no page. Throws std::runtime_error.
http_answer* load_http_answer();

}  // namespace tolvan::vesk::tool

#pragma once

#include <string>

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::vesk::tool {

/// A TCP socket that listens for HTTP.
class http_listener {
  public:
    /// Binds to ADDRESS:PORT: a number, with IPv6 in [], "localhost" or "*", and a port, 0 for any free one.
    /// Without `allow_remote` loopback addresses only.
    /// Throws std::runtime_error naming the address and the reason.
    http_listener(const std::string& address, bool allow_remote);

    /// Does not block.
    int descriptor() const { return socket.get(); }

    /// Where it listens, with the real port: "http://127.0.0.1:8080/".
    std::string url() const;

  private:
    wire::descriptor socket;
};

}  // namespace tolvan::vesk::tool

#pragma once

#include <string>

namespace tolvan::vesk::v1 {

/// What a connection needs to know.
struct conf_t {
    /// Name of the transport ("hub" loads libvesk-hub.so) or path of its library.
    std::string backend = "hub";
    /// Where the process sends its messages.
    std::string pub_endpoint{};
    /// Where the process receives messages.
    std::string sub_endpoint{};
    /// Whether the first publish waits, without limit, for a first subscription. A signal with a handler ends
    /// the wait, and it is not repeated.
    bool block_on_first_publish = false;
};

}  // namespace tolvan::vesk::v1

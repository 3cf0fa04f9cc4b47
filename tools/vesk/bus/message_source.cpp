#include "bus/message_source.hpp"

#include <tolvan/relay/hub.hpp>

namespace tolvan::vesk::tool {

void refuse_unless_carried(const std::string& name, std::string_view text) {
    if (text.size() > relay::hub::largest_message)
        throw refused_message(name + " is longer than 16 MiB, which the hub cannot carry");
    if (text.find('\0') != std::string_view::npos)
        throw refused_message(name + " has a NUL byte, which the hub cannot carry");
}

}  // namespace tolvan::vesk::tool

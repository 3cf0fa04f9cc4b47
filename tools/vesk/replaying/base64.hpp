#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tolvan::vesk::tool {

/// The bytes that a text stands for in base64, with its padding; empty when it is none.
std::optional<std::string> from_base64(std::string_view text);

}  // namespace tolvan::vesk::tool

#pragma once

#include <string>

namespace tolvan::vesk::tool {

/// Writes the whole text to stdout, now. Throws std::system_error when stdout does not take it.
void put_out(const std::string& text);

}  // namespace tolvan::vesk::tool

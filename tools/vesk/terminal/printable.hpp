#pragma once

#include <string>
#include <string_view>

namespace tolvan::vesk::tool {

/// A text from anywhere as a terminal may have it: everything that could move its cursor, change its colours
/// or turn the direction of writing is an escape that can be read, "\x1b" or "\u202e". So is a line break,
/// and each byte that is not UTF-8.
std::string printable(std::string_view text);

/// The text as it goes to that descriptor: `printable` on a terminal, else byte for byte.
std::string shown_on(int descriptor, std::string_view text);

}  // namespace tolvan::vesk::tool

#pragma once

#include <cstddef>
#include <string_view>

namespace tolvan::vesk::tool {

struct code_point {
    char32_t value = 0;
    std::size_t length = 0;  ///< in bytes; 0: the text does not begin with UTF-8
};

/// What a text that is not empty begins with.
code_point first_code_point(std::string_view text);

/// Whether a terminal may not have that character: it could move the cursor, change colours or turn the
/// direction of writing. None of them is beyond U+FFFF.
bool controls_terminal(char32_t value);

}  // namespace tolvan::vesk::tool

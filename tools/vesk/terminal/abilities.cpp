#include "terminal/abilities.hpp"

#include <cstdlib>
#include <string_view>

#include <unistd.h>

namespace tolvan::vesk::tool {

namespace {

std::string_view variable(const char* name) {
    const char* const text = std::getenv(name);
    return text == nullptr ? "" : text;
}

}  // namespace

bool moves_cursor(int descriptor) {
    const auto kind = variable("TERM");
    return ::isatty(descriptor) == 1 && !kind.empty() && kind != "dumb";
}

bool shows_colours(int descriptor) {
    return moves_cursor(descriptor) && variable("NO_COLOR").empty();
}

}  // namespace tolvan::vesk::tool

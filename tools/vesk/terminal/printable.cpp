#include "terminal/printable.hpp"

#include <cstdint>

#include <fmt/format.h>
#include <unistd.h>

#include "terminal/utf8.hpp"

namespace tolvan::vesk::tool {

namespace {

std::string escape(char32_t value) {
    const auto number = static_cast<std::uint32_t>(value);
    return number < 0x80 ? fmt::format("\\x{:02x}", number) : fmt::format("\\u{:04x}", number);
}

}  // namespace

std::string printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const code_point first = first_code_point(text);
        if (first.length == 0)
            shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(text.front()));
        else if (controls_terminal(first.value))
            shown += escape(first.value);
        else
            shown += text.substr(0, first.length);
        text.remove_prefix(first.length == 0 ? 1 : first.length);
    }
    return shown;
}

std::string shown_on(int descriptor, std::string_view text) {
    return ::isatty(descriptor) != 0 ? printable(text) : std::string(text);
}

}  // namespace tolvan::vesk::tool

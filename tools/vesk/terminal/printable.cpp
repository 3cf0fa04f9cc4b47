#include "terminal/printable.hpp"

#include <cstdint>

#include <fmt/format.h>
#include <unistd.h>

namespace tolvan::vesk::tool {

namespace {

struct code_point {
    char32_t value = 0;
    std::size_t length = 0;  ///< in bytes; 0: the text does not begin with UTF-8
};

constexpr char32_t least_of_length[] = {0, 0, 0x80, 0x800, 0x10000};

std::size_t announced_length(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead < 0xc0 || lead >= 0xf8) return 0;
    return lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
}

bool is_encodable(char32_t value, std::size_t length) {
    return value >= least_of_length[length] && value <= 0x10ffff && (value < 0xd800 || value > 0xdfff);
}

code_point first_of(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t length = announced_length(lead);
    if (length == 0 || length > text.size()) return {};
    if (length == 1) return {lead, 1};
    char32_t value = lead & (0x7fU >> length);
    for (const char each : text.substr(1, length - 1)) {
        const auto byte = static_cast<unsigned char>(each);
        if ((byte & 0xc0U) != 0x80U) return {};
        value = value << 6U | (byte & 0x3fU);
    }
    return is_encodable(value, length) ? code_point{value, length} : code_point{};
}

bool turns_direction(char32_t value) {
    return (value >= 0x202a && value <= 0x202e) || (value >= 0x2066 && value <= 0x2069);
}

bool controls(char32_t value) {
    return value < 0x20 || (value >= 0x7f && value < 0xa0) || turns_direction(value);
}

std::string escape(char32_t value) {
    const auto number = static_cast<std::uint32_t>(value);
    return number < 0x80 ? fmt::format("\\x{:02x}", number) : fmt::format("\\u{:04x}", number);
}

}  // namespace

std::string printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const code_point first = first_of(text);
        if (first.length == 0)
            shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(text.front()));
        else if (controls(first.value))
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

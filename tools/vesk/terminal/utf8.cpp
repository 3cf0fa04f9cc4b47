#include "terminal/utf8.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr char32_t least_of_length[] = {0, 0, 0x80, 0x800, 0x10000};

std::size_t announced_length(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead < 0xc0 || lead >= 0xf8) return 0;
    return lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
}

bool is_encodable(char32_t value, std::size_t length) {
    return value >= least_of_length[length] && value <= 0x10ffff && (value < 0xd800 || value > 0xdfff);
}

bool turns_direction(char32_t value) {
    return (value >= 0x202a && value <= 0x202e) || (value >= 0x2066 && value <= 0x2069);
}

}  // namespace

code_point first_code_point(std::string_view text) {
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

bool controls_terminal(char32_t value) {
    return value < 0x20 || (value >= 0x7f && value < 0xa0) || turns_direction(value);
}

}  // namespace tolvan::vesk::tool

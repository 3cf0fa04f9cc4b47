#include "replaying/base64.hpp"

#include <cstdint>

namespace tolvan::vesk::tool {

namespace {

constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string_view without_padding(std::string_view text) {
    for (int most = 2; most > 0 && text.ends_with('='); --most) text.remove_suffix(1);
    return text;
}

}  // namespace

std::optional<std::string> from_base64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::string bytes;
    std::uint32_t bits = 0;
    unsigned count = 0;  // of bits that wait for the rest of their byte
    for (const char each : without_padding(text)) {
        const std::size_t digit = digits.find(each);
        if (digit == std::string_view::npos) return std::nullopt;
        bits = bits << 6U | static_cast<std::uint32_t>(digit);
        count += 6;
        if (count < 8) continue;
        count -= 8;
        bytes += static_cast<char>(bits >> count & 0xffU);
    }
    return bytes;
}

}  // namespace tolvan::vesk::tool

// By hand, because it is done for each message that passes: into the output's own memory, without a tree of
// values before it. What a terminal may not have is an escape always, so the text need not be looked at
// again.
#include "observing/json_text.hpp"

#include <array>
#include <cstdint>

#include "observing/receipt.hpp"
#include "terminal/utf8.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr const char* escape_digits = "0123456789abcdef";
constexpr const char* base64_digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr bool is_plain(char character) {
    return character >= ' ' && character < 0x7f && character != '"' && character != '\\';
}

constexpr auto plain = [] {
    std::array<bool, 256> table{};
    for (int byte = 0; byte < 0x80; ++byte)
        table.at(static_cast<std::size_t>(byte)) = is_plain(static_cast<char>(byte));
    return table;
}();

std::size_t length_of_plain_text(std::string_view text) {
    std::size_t length = 0;
    while (length < text.size() && plain[static_cast<unsigned char>(text[length])]) ++length;
    return length;
}

void append_escaped(std::string& to, char32_t value) {
    to += '\\';
    if (value == '"' || value == '\\') {
        to += static_cast<char>(value);
    } else if (value == '\n') {
        to += 'n';
    } else if (value == '\t') {
        to += 't';
    } else {
        to += 'u';
        for (const unsigned shift : {12U, 8U, 4U, 0U}) to += escape_digits[value >> shift & 15U];
    }
}

// False when it is not UTF-8; then a part of it has been appended.
bool append_contents(std::string& to, std::string_view text) {
    while (true) {
        const std::size_t length = length_of_plain_text(text);
        to += text.substr(0, length);
        text.remove_prefix(length);
        if (text.empty()) return true;
        const code_point next = first_code_point(text);
        if (next.length == 0) return false;
        if (next.value < 0x80 || controls_terminal(next.value))
            append_escaped(to, next.value);
        else
            to += text.substr(0, next.length);
        text.remove_prefix(next.length);
    }
}

void append_digits(std::string& to, std::string_view three) {
    std::uint32_t bits = 0;
    for (const char each : three) bits = bits << 8U | static_cast<unsigned char>(each);
    for (const unsigned shift : {18U, 12U, 6U, 0U}) to += base64_digits[bits >> shift & 63U];
}

void append_base64(std::string& to, std::string_view bytes) {
    to.reserve(to.size() + bytes.size() / 3 * 4 + 4);
    for (; bytes.size() >= 3; bytes.remove_prefix(3)) append_digits(to, bytes.substr(0, 3));
    if (bytes.empty()) return;
    const std::size_t missing = 3 - bytes.size();
    append_digits(to, std::string(bytes) + std::string(missing, '\0'));
    to.replace(to.size() - missing, missing, missing, '=');
}

void append_name(std::string& to, std::string_view name, std::string_view addition = {}) {
    to += '"';
    to += name;
    to += addition;
    to += "\":\"";
}

}  // namespace

void append_json_member(std::string& to, std::string_view name, std::string_view text) {
    const std::size_t before = to.size();
    append_name(to, name);
    if (!append_contents(to, text)) {
        to.resize(before);
        append_name(to, name, "_base64");
        append_base64(to, text);
    }
    to += '"';
}

void append_json_members(std::string& to, const wire::hub_message& message) {
    append_json_member(to, "topic", message.topic);
    to += ',';
    append_json_member(to, "data", message.data);
    to += ",\"age_ms\":";
    append_age(to, message, "null");
}

}  // namespace tolvan::vesk::tool

#include "observing/line_format.hpp"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "observing/receipt.hpp"
#include "terminal/printable.hpp"

namespace tolvan::vesk::tool {

namespace {

using received = line_format::received;

constexpr const char* hex_digits = "0123456789abcdef";
constexpr std::string_view escapes = "nt\\";
constexpr std::string_view meant_by_escapes = "\n\t\\";

std::invalid_argument unknown(std::string_view at, const char* known) {
    return std::invalid_argument(fmt::format("'{}' is none of {}", at.substr(0, 2), known));
}

char meaning_of_escape(std::string_view at) {
    const std::size_t which = at.size() > 1 ? escapes.find(at[1]) : std::string_view::npos;
    if (which == std::string_view::npos) throw unknown(at, "\\n \\t \\\\");
    return meant_by_escapes[which];
}

void append_text(std::string& to, std::string_view text, bool for_terminal) {
    if (for_terminal)
        to += printable(text);
    else
        to += text;
}

void append_topic(std::string& to, const received& shown) {
    append_text(to, shown.message.topic, shown.for_terminal);
}

void append_data(std::string& to, const received& shown) {
    append_text(to, shown.message.data, shown.for_terminal);
}

void append_length(std::string& to, const received& shown) {
    to += fmt::format_int(shown.message.data.size()).c_str();
}

void append_hex(std::string& to, const received& shown) {
    for (const char each : shown.message.data) {
        to += hex_digits[static_cast<unsigned char>(each) >> 4U];
        to += hex_digits[static_cast<unsigned char>(each) & 15U];
    }
}

void append_unix_time(std::string& to, const received& shown) {
    const auto since = std::chrono::floor<std::chrono::microseconds>(shown.at.time_since_epoch()).count();
    fmt::format_to(std::back_inserter(to), "{}.{:06}", since / 1'000'000, since % 1'000'000);
}

void append_local_time(std::string& to, const received& shown) {
    append_iso_time(to, shown.at);
}

void append_age_in_ms(std::string& to, const received& shown) {
    append_age(to, shown.message, "-");
}

constexpr std::pair<char, void (*)(std::string&, const received&)> directives[] = {
    {'t', append_topic},      {'p', append_data},      {'l', append_length},    {'x', append_hex},
    {'I', append_local_time}, {'U', append_unix_time}, {'a', append_age_in_ms},
};

}  // namespace

line_format::line_format(std::string_view text) : parts(1) {
    for (; !text.empty(); text.remove_prefix(1)) {
        if (text.starts_with("%%")) {
            parts.back().literal += '%';
        } else if (text.front() == '%') {
            parts.back().then = find_directive(text);
            parts.emplace_back();
        } else if (text.front() == '\\') {
            parts.back().literal += meaning_of_escape(text);
        } else {
            parts.back().literal += text.front();
            continue;
        }
        text.remove_prefix(1);
    }
}

line_format::directive line_format::find_directive(std::string_view at) {
    for (const auto& [letter, append] : directives)
        if (at.substr(1).starts_with(letter)) return append;
    throw unknown(at, "%t %p %l %x %I %U %a %%");
}

void line_format::append(std::string& to, const received& shown) const {
    for (const part& each : parts) {
        to += each.literal;
        if (each.then != nullptr) each.then(to, shown);
    }
}

}  // namespace tolvan::vesk::tool

#include <algorithm>
#include <cstring>
#include <string_view>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <tolvan/lumo/v1/message_formatter.hpp>

namespace tolvan::lumo::v1::detail {

namespace {

template <typename T>
unsigned print_to(char* dest, unsigned size, const char* spec, const T& value) {
    const auto printed = fmt::format_to_n(dest, size, fmt::runtime(spec), value);
    return static_cast<unsigned>(std::min<std::size_t>(printed.size, size));
}

// A placeholder that does not suit its argument must not cost the record its value.
template <typename T>
unsigned print(char* dest, unsigned size, const char* spec, const T& value) {
    try {
        return print_to(dest, size, spec, value);
    } catch (const fmt::format_error&) {
        return print_to(dest, size, "{}", value);
    }
}

// Most texts are printed as they are.
unsigned print_text(char* dest, unsigned size, const char* spec, std::string_view text) {
    if (std::strcmp(spec, "{}") == 0) return static_cast<unsigned>(text.copy(dest, size));
    return print(dest, size, spec, text);
}

bool lies_between(char c, unsigned char first, unsigned char last) {
    const auto byte = static_cast<unsigned char>(c);
    return first <= byte && byte <= last;
}

// How many bytes at the start of a text are a C1 control (U+0080 to U+009F), or a control of the direction of
// writing (U+202A to U+202E, U+2066 to U+2069); 0 for anything else.
std::size_t control_at_start(std::string_view text) {
    const char second = text.size() < 2 ? '\0' : text[1];
    const char third = text.size() < 3 ? '\0' : text[2];
    if (text[0] == '\xC2') return lies_between(second, 0x80, 0x9F) ? 2 : 0;
    const bool direction = text[0] == '\xE2' && ((second == '\x80' && lies_between(third, 0xAA, 0xAE)) ||
                                                 (second == '\x81' && lies_between(third, 0xA6, 0xA9)));
    return direction ? 3 : 0;
}

}  // namespace

unsigned var_printer<std::string>::operator()(char* dest, unsigned size, const char* spec,
                                              const std::string& value) const {
    return print_text(dest, size, spec, std::string_view(value).substr(0, size));
}

unsigned var_printer<char*>::operator()(char* dest, unsigned size, const char* spec,
                                        const char* value) const {
    if (value == nullptr) value = "(null)";
    return print_text(dest, size, spec, std::string_view(value, ::strnlen(value, size)));
}

unsigned var_printer<int>::operator()(char* dest, unsigned size, const char* spec, int value) const {
    return print(dest, size, spec, value);
}

unsigned var_printer<unsigned int>::operator()(char* dest, unsigned size, const char* spec,
                                               unsigned int value) const {
    return print(dest, size, spec, value);
}

unsigned var_printer<unsigned short>::operator()(char* dest, unsigned size, const char* spec,
                                                 unsigned short value) const {
    return print(dest, size, spec, value);
}

unsigned var_printer<unsigned char>::operator()(char* dest, unsigned size, const char* spec,
                                                unsigned char value) const {
    return print(dest, size, spec, value);
}

unsigned var_printer<bool>::operator()(char* dest, unsigned size, const char* spec, bool value) const {
    return print(dest, size, spec, value);
}

unsigned var_printer<std::type_info>::operator()(char* dest, unsigned size, const char* spec,
                                                 const std::type_info& value) const {
    return var_printer<char*>()(dest, size, spec, value.name());
}

unsigned var_printer<printed_milliseconds>::operator()(char* dest, unsigned size, const char* spec,
                                                       printed_milliseconds value) const {
    return print(dest, size, spec, value);
}

void message_formatter<>::init(const char* format) {
    position = format;
    placeholders_seen = 0;
    length = 0;
    bytes_free = buffer_size - 1;  // the NUL stays
}

unsigned message_formatter<>::write_till_next_replacement() {
    while (const char* opening = std::strchr(position, '{')) {
        append(position, static_cast<std::size_t>(opening - position));
        position = take_placeholder(opening);
        if (position != opening) return ++placeholders_seen;
        append(position++, 1);  // a brace that opens no placeholder stands for itself
    }
    const std::size_t rest = std::strlen(position);
    append(position, rest);
    position += rest;
    return 0;
}

// Returns what follows the placeholder, or `opening` itself when none begins there.
const char* message_formatter<>::take_placeholder(const char* opening) {
    const char* const closing = opening[1] == '}'   ? opening + 1
                                : opening[1] == ':' ? std::strchr(opening, '}')
                                                    : nullptr;
    const bool well_formed =
        closing != nullptr && closing - opening < static_cast<std::ptrdiff_t>(longest_placeholder);
    if (!well_formed) return opening;
    const auto size = static_cast<std::size_t>(closing + 1 - opening);
    std::memcpy(placeholder, opening, size);
    placeholder[size] = '\0';
    return closing + 1;
}

char* message_formatter<>::get_buffer_free_ptr() {
    return buffer + length;
}

void message_formatter<>::write_replacement(unsigned /*number*/) {
    append(placeholder, std::strlen(placeholder));
}

void message_formatter<>::generate_output() {
    while (const unsigned number = write_till_next_replacement()) write_replacement(number);
}

void message_formatter<>::scrub_buffer() {
    unsigned char begins_longer_one = 0;
    const auto scrubbed = [&begins_longer_one](char c) {
        const auto byte = static_cast<unsigned char>(c);
        begins_longer_one |= static_cast<unsigned char>(byte == 0xC2 || byte == 0xE2);
        return byte < 0x20 || byte == 0x7F ? '?' : c;
    };
    std::transform(buffer, get_buffer_free_ptr(), buffer, scrubbed);
    if (begins_longer_one != 0) scrub_multibyte_controls();
}

// The text gets shorter where it stands.
void message_formatter<>::scrub_multibyte_controls() {
    char* end = buffer;
    for (std::string_view rest(buffer, length); !rest.empty();) {
        const std::size_t control = control_at_start(rest);
        *end++ = control > 0 ? '?' : rest.front();
        rest.remove_prefix(std::max<std::size_t>(control, 1));
    }
    std::fill(end, get_buffer_free_ptr(), '\0');
    length = static_cast<unsigned>(end - buffer);
}

void message_formatter<>::append(const char* bytes, std::size_t size) {
    const auto written = static_cast<unsigned>(std::min<std::size_t>(size, bytes_free));
    std::memcpy(get_buffer_free_ptr(), bytes, written);
    advance(static_cast<int>(written));
}

void message_formatter<>::advance(int written) {
    const unsigned taken = std::min(static_cast<unsigned>(std::max(written, 0)), bytes_free);
    length += taken;
    bytes_free -= taken;
    if (taken > 0 && bytes_free == 0) drop_cut_character();
}

// The buffer is full, and its last character may have been cut: takes back what there is of it.
void message_formatter<>::drop_cut_character() {
    const auto byte = [this](unsigned at) { return static_cast<unsigned char>(buffer[at]); };
    unsigned lead = length - 1;
    while (lead > length - 4 && (byte(lead) & 0xC0) == 0x80) --lead;
    const unsigned wanted = byte(lead) >= 0xF0 ? 4 : byte(lead) >= 0xE0 ? 3 : byte(lead) >= 0xC0 ? 2 : 1;
    if (wanted <= length - lead) return;
    std::fill(buffer + lead, buffer + length, '\0');
    length = lead;
}

}  // namespace tolvan::lumo::v1::detail

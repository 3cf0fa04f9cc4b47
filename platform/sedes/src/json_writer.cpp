#include <algorithm>
#include <cstdint>
#include <utility>

#include <nlohmann/json.hpp>

#include <tolvan/Variant.hpp>

namespace tolvan {

using nlohmann::json;

namespace {

// Arrays and objects are written here: as nlohmann's documents they would take memory in their destructors,
// and end the process where there is none.
void write(const Variant& value, std::string& text);

template <typename T>
void write_scalar(const T& scalar, std::string& text) {
    constexpr int compact = -1;
    text += json(scalar).dump(compact, ' ', false, json::error_handler_t::replace);
}

void write_text(const std::string& written, std::string& text) {
    const auto stands_for_itself = [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; };
    if (std::all_of(written.begin(), written.end(), stands_for_itself))
        text.append(1, '"').append(written).append(1, '"');
    else
        write_scalar(written, text);
}

void write_integer(const Variant& value, std::string& text) {
    if (const auto number = value.as_integer<std::int64_t>())
        text += std::to_string(*number);
    else
        text += std::to_string(*value.as_integer<std::uint64_t>());
}

void write_array(const Variant::array_t& elements, std::string& text) {
    const char* separator = "[";
    for (const Variant& element : elements) {
        text += std::exchange(separator, ",");
        write(element, text);
    }
    text += elements.empty() ? "[]" : "]";
}

void write_object(const Variant::object_t& members, std::string& text) {
    const char* separator = "{";
    for (const auto& [key, member] : members) {
        text += std::exchange(separator, ",");
        write_text(key, text);
        text += ':';
        write(member, text);
    }
    text += members.empty() ? "{}" : "}";
}

void write(const Variant& value, std::string& text) {
    switch (value.kind()) {
        case Variant::kind_t::null:
            text += "null";
            break;
        case Variant::kind_t::boolean:
            text += *value.as_boolean() ? "true" : "false";
            break;
        case Variant::kind_t::integer:
            write_integer(value, text);
            break;
        case Variant::kind_t::number:
            write_scalar(*value.as_number(), text);
            break;
        case Variant::kind_t::string:
            write_text(*value.as_string(), text);
            break;
        case Variant::kind_t::array:
            write_array(*value.as_array(), text);
            break;
        case Variant::kind_t::object:
            write_object(*value.as_object(), text);
            break;
    }
}

}  // namespace

std::string Variant::toJson() const {
    std::string text;
    write(*this, text);
    return text;
}

}  // namespace tolvan

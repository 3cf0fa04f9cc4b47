#include "options/validators.hpp"

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/bad_deserialization_source.hpp>

#include "options/add_options.hpp"

namespace tolvan::vesk::tool {

namespace {

// For a word that somebody has meant as a text: the shell takes away the quotation marks that JSON needs.
std::string hint_for(const std::string& value) {
    if (value.empty() || value.find_first_of("\"'{[") != std::string::npos) return {};
    return "; for a text write '" + Variant::string(value).toJson() + "', with both kinds of quotes";
}

}  // namespace

std::string objection_to_json(const std::string& text) {
    if (text.find('\0') != std::string::npos) return "it has a NUL byte";
    try {
        Variant::fromJson(text);
        Variant::fromJson("[" + text + "]");  // as deep as in its envelope
        return {};
    } catch (const sedes::v1::bad_deserialization_source& error) {
        return error.what();
    }
}

std::string is_json(const std::string& value) {
    const std::string objection = objection_to_json(value);
    return objection.empty() ? "" : "'" + value + "' is not JSON: " + objection + hint_for(value);
}

std::string refusal(const std::string& text, const std::string& noun, const std::string& range) {
    return fmt::format("'{}' is not {} {}", unshielded(text), noun, range);
}

std::string not_empty(const std::string& value) {
    return value.empty() ? "must not be empty" : "";
}

std::string without::operator()(const std::string& value) const {
    if (value.find_first_of(characters) == std::string::npos) return {};
    return "'" + value + "' must not contain any of \"" + characters + "\", where the bus cuts topics";
}

}  // namespace tolvan::vesk::tool

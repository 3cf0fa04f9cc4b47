#include "options/validators.hpp"

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/bad_deserialization_source.hpp>

namespace tolvan::vesk::tool {

std::string is_json(const std::string& value) {
    try {
        Variant::fromJson(value);
        Variant::fromJson("[" + value + "]");  // as deep as in its envelope
        return {};
    } catch (const sedes::v1::bad_deserialization_source& error) {
        return "'" + value + "' is not JSON: " + error.what();
    }
}

std::string not_empty(const std::string& value) {
    return value.empty() ? "must not be empty" : "";
}

std::string without::operator()(const std::string& value) const {
    if (value.find_first_of(characters) == std::string::npos) return {};
    return "'" + value + "' must not contain any of \"" + characters + "\", where the bus cuts topics";
}

}  // namespace tolvan::vesk::tool

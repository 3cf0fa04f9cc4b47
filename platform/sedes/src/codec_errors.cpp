#include <stdexcept>
#include <string>

#include <tolvan/sedes/v1/codec_errors.hpp>
#include <tolvan/sedes/v1/json.hpp>

namespace tolvan::sedes::v1 {

namespace {

constexpr std::size_t longest_quoted = 100;

std::string quoted(std::string_view text) {
    const bool whole = text.size() <= longest_quoted;
    return "\"" + std::string{text.substr(0, longest_quoted)} + (whole ? "\"" : "...\"");
}

}  // namespace

void throw_wrong_kind(const char* expected, const Variant& found) {
    throw bad_deserialization_source{std::string{"expected "} + expected + ", found " + found.kind_name()};
}

void throw_out_of_range(const Variant& found) {
    throw bad_deserialization_source{"number " + found.toJson() + " is out of range"};
}

void throw_wrong_size(std::size_t expected, std::size_t found) {
    throw bad_deserialization_source{"expected " + std::to_string(expected) + " elements, found " +
                                     std::to_string(found)};
}

void throw_unknown_name(std::string_view found) {
    throw bad_deserialization_source{"unknown name " + quoted(found)};
}

void throw_nameless(std::int64_t value) {
    throw std::out_of_range{"no name for enumerator " + std::to_string(value)};
}

void throw_missing_member(std::string_view key) {
    throw bad_deserialization_source{"required member " + quoted(key) + " is missing"};
}

void rethrow_in_member(std::string_view key, const bad_deserialization_source& error) {
    throw bad_deserialization_source{"in " + quoted(key) + ": " + error.what()};
}

void rethrow_in_element(std::size_t index, const bad_deserialization_source& error) {
    throw bad_deserialization_source{"in element " + std::to_string(index) + ": " + error.what()};
}

void rethrow_from_source(const source_type_t* source, const bad_deserialization_source& error) {
    if (!source) throw;
    throw bad_deserialization_source{"from " + source->name + ": " + error.what()};
}

}  // namespace tolvan::sedes::v1

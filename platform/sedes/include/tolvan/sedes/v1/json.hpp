#pragma once

#include <string>

#include <tolvan/sedes/v1/codec.hpp>
#include <tolvan/sedes/v1/container_codecs.hpp>
#include <tolvan/sedes/v1/record_codec.hpp>

namespace tolvan::sedes::v1 {

/// Where a text comes from, for messages.
struct source_type_t {
    std::string name;
};

/// Adds to `error` the source of the text, unless that is null, and throws it as bad_deserialization_source.
[[noreturn]] void rethrow_from_source(const source_type_t* source, const bad_deserialization_source& error);

/// `value` as compact JSON text: a record, a shared record, an optional (null gives `null`), a vector, an
/// array, a map with texts as keys, an enumeration or a plain value. Throws what to_variant() throws.
template <typename T>
std::string serialize_to_json_string(const T& value) {
    return to_variant(value).toJson();
}

/// Reads `text` into `*out`. Throws bad_deserialization_source when it is not exactly one JSON text or does
/// not fit `T`; the message names the member, and `source` unless that is null. `*out` may then have been
/// changed in part.
template <typename T>
void deserialize_from_json_string(const std::string& text, T* out, const source_type_t* source = nullptr) {
    try {
        from_variant(Variant::fromJson(text), *out);
    } catch (const bad_deserialization_source& error) {
        rethrow_from_source(source, error);
    }
}

}  // namespace tolvan::sedes::v1

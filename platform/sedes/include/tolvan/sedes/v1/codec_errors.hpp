#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/bad_deserialization_source.hpp>

/// How reading a value into a type fails. Each throws bad_deserialization_source but for `throw_nameless`.
/// Texts of a peer that they quote are cut behind 100 bytes.
namespace tolvan::sedes::v1 {

/// `found` is not `expected`, which is worded like "a string".
[[noreturn]] void throw_wrong_kind(const char* expected, const Variant& found);

/// `found` is a number that the type cannot hold.
[[noreturn]] void throw_out_of_range(const Variant& found);

/// `found` is not the number of elements that the type has.
[[noreturn]] void throw_wrong_size(std::size_t expected, std::size_t found);

/// `found` is the name of no enumerator.
[[noreturn]] void throw_unknown_name(std::string_view found);

/// Of writing: no enumerator with a name has this value. Throws std::out_of_range.
[[noreturn]] void throw_nameless(std::int64_t value);

/// A record's required member is not there.
[[noreturn]] void throw_missing_member(std::string_view key);

/// Adds to `error` in which member it arose.
[[noreturn]] void rethrow_in_member(std::string_view key, const bad_deserialization_source& error);

/// Adds to `error` in which element of an array it arose, counted from 0.
[[noreturn]] void rethrow_in_element(std::size_t index, const bad_deserialization_source& error);

}  // namespace tolvan::sedes::v1

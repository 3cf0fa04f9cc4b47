#pragma once

#include <cstddef>
#include <string_view>

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/bad_deserialization_source.hpp>

/// How reading a value into a type fails. Each throws bad_deserialization_source.
namespace tolvan::sedes::v1 {

/// `found` is not `expected`, which is worded like "a string".
[[noreturn]] void throw_wrong_kind(const char* expected, const Variant& found);

/// `found` is a number that the type cannot hold.
[[noreturn]] void throw_out_of_range(const Variant& found);

/// A record's required member is not there.
[[noreturn]] void throw_missing_member(std::string_view key);

/// Adds to `error` in which member it arose.
[[noreturn]] void rethrow_in_member(std::string_view key, const bad_deserialization_source& error);

/// Adds to `error` in which element of an array it arose, counted from 0.
[[noreturn]] void rethrow_in_element(std::size_t index, const bad_deserialization_source& error);

}  // namespace tolvan::sedes::v1

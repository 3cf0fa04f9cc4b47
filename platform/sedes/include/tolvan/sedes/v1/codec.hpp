#pragma once

#if __cplusplus < 202002L
#error "vesk needs C++20: g++ -std=c++20"
#endif

#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/codec_errors.hpp>
#include <tolvan/sedes/v1/enumeration.hpp>
#include <tolvan/sedes/v1/opaque_json_block.hpp>
#include <tolvan/sedes/v1/optional.hpp>

namespace tolvan::sedes::v1 {

/// How a type is written to JSON and read from it: `write` gives its JSON form, `read` throws
/// bad_deserialization_source. An application may specialise it for a type of its own.
template <typename T>
struct codec {
    template <typename>
    static constexpr bool has_json_form = false;
    static_assert(
        has_json_form<T>,
        "This type has no form in JSON. Those that have: bool, integers, floating-point numbers, "
        "enumerations, std::string, std::optional, std::vector, std::array, std::map<std::string, T>, "
        "and records, which need a static description().");

    static Variant write(const T& value);
    static void read(const Variant& json, T& out);
};

/// `value` as JSON. Throws missing_value for an optional that is not set, std::out_of_range for an enumerator
/// that its description leaves out, std::length_error when nested deeper than Variant::max_depth.
template <typename T>
Variant to_variant(const T& value) {
    return codec<T>::write(value);
}

/// Reads `json` into `out`. Throws bad_deserialization_source when it does not fit; `out` may then have been
/// changed in part.
template <typename T>
void from_variant(const Variant& json, T& out) {
    codec<T>::read(json, out);
}

/// The integers that are numbers in JSON: all widths, but neither bool nor char.
template <typename T>
concept json_integer = std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char>;

template <>
struct codec<Variant> {
    static Variant write(const Variant& value) { return value; }
    static void read(const Variant& json, Variant& out) { out = json; }
};

template <>
struct codec<opaque_json_block> {
    static Variant write(const opaque_json_block& value) { return value.variant(); }
    static void read(const Variant& json, opaque_json_block& out) { out = opaque_json_block{json}; }
};

template <>
struct codec<bool> {
    static Variant write(bool value) { return Variant::boolean(value); }
    static void read(const Variant& json, bool& out) {
        const auto flag = json.as_boolean();
        if (!flag) throw_wrong_kind("a boolean", json);
        out = *flag;
    }
};

template <json_integer T>
struct codec<T> {
    static Variant write(T value) {
        if constexpr (std::is_signed_v<T>)
            return Variant::integer(value);
        else
            return Variant::unsigned_integer(value);
    }
    static void read(const Variant& json, T& out) {
        if (json.kind() != Variant::kind_t::integer) throw_wrong_kind("an integer", json);
        const auto number = json.as_integer<T>();
        if (!number) throw_out_of_range(json);
        out = *number;
    }
};

template <std::floating_point T>
struct codec<T> {
    static Variant write(T value) { return Variant::number(static_cast<double>(value)); }
    static void read(const Variant& json, T& out) {
        const auto number = json.as_number();
        if (!number) throw_wrong_kind("a number", json);
        if (std::abs(*number) > std::numeric_limits<T>::max()) throw_out_of_range(json);
        out = static_cast<T>(*number);
    }
};

template <>
struct codec<std::string> {
    static Variant write(const std::string& value) { return Variant::string(value); }
    static void read(const Variant& json, std::string& out) {
        const std::string* text = json.as_string();
        if (!text) throw_wrong_kind("a string", json);
        out = *text;
    }
};

/// An enumeration without a description.
template <typename T>
concept bare_enum = std::is_enum_v<T> && !described_enum<T> && json_integer<std::underlying_type_t<T>>;

/// It is its number; a number that no enumerator has is taken as well.
template <bare_enum T>
struct codec<T> {
    using number = std::underlying_type_t<T>;

    static Variant write(T value) { return codec<number>::write(static_cast<number>(value)); }
    static void read(const Variant& json, T& out) {
        number value{};
        codec<number>::read(json, value);
        out = static_cast<T>(value);
    }
};

template <described_enum T>
struct codec<T> {
    static Variant write(T value) {
        for (const auto& known : description(value))
            if (known.value == value) return Variant::string(std::string{known.name});
        throw_nameless(static_cast<std::int64_t>(value));
    }
    static void read(const Variant& json, T& out) {
        const std::string* text = json.as_string();
        if (!text) throw_wrong_kind("a string", json);
        for (const auto& known : description(out))
            if (known.name == *text) return void(out = known.value);
        throw_unknown_name(*text);
    }
};

/// JSON null is an optional without a value.
template <typename Optional>
requires std::same_as<Optional, optional<typename Optional::value_type>> ||
    std::same_as<Optional, std::optional<typename Optional::value_type>>
struct codec<Optional> {
    using T = typename Optional::value_type;

    static Variant write(const Optional& value) {
        return value.has_value() ? codec<T>::write(value.value()) : Variant{};
    }
    static void read(const Variant& json, Optional& out) {
        if (json.is_null()) return out.reset();
        T value{};
        codec<T>::read(json, value);
        out = std::move(value);
    }
};

}  // namespace tolvan::sedes::v1

#pragma once

#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/codec_errors.hpp>
#include <tolvan/sedes/v1/composite.hpp>
#include <tolvan/sedes/v1/opaque_json_block.hpp>
#include <tolvan/sedes/v1/optional.hpp>

namespace tolvan::sedes::v1 {

/// How a type is written to JSON and read from it: `static Variant write(const T&)`, and `static void
/// read(const Variant&, T&)`, which throws bad_deserialization_source. An application may specialise it for a
/// type of its own.
template <typename T>
struct codec;

/// `value` as JSON. Throws missing_value for an optional that is not set, std::length_error when nested
/// deeper than Variant::max_depth.
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

template <typename T>
struct codec<std::vector<T>> {
    static Variant write(const std::vector<T>& value) {
        Variant::array_t elements;
        elements.reserve(value.size());
        for (const auto& element : value) elements.push_back(codec<T>::write(element));
        return Variant::array(std::move(elements));
    }
    static void read(const Variant& json, std::vector<T>& out) {
        const Variant::array_t* elements = json.as_array();
        if (!elements) throw_wrong_kind("an array", json);
        out.clear();
        for (const Variant& element : *elements) out.push_back(read_element(element, out.size()));
    }

  private:
    static T read_element(const Variant& json, std::size_t index) try {
        T element{};
        codec<T>::read(json, element);
        return element;
    } catch (const bad_deserialization_source& error) {
        rethrow_in_element(index, error);
    }
};

/// JSON null is a null optional.
template <typename T>
struct codec<optional<T>> {
    static Variant write(const optional<T>& value) {
        return value.has_value() ? codec<T>::write(value.value()) : Variant{};
    }
    static void read(const Variant& json, optional<T>& out) {
        if (json.is_null()) return out.reset();
        T value{};
        codec<T>::read(json, value);
        out = std::move(value);
    }
};

/// A record. Keys that its description does not name are ignored when reading.
template <described T>
struct codec<T> {
    static Variant write(const T& record) {
        Variant::object_t members;
        std::apply([&](const auto&... member) { (write_member(record, member, members), ...); },
                   T::description());
        return Variant::object(std::move(members));
    }
    static void read(const Variant& json, T& record) {
        if (!json.as_object()) throw_wrong_kind("an object", json);
        std::apply([&](const auto&... member) { (read_member(json, member, record), ...); },
                   T::description());
    }

  private:
    template <typename Owner, typename M>
    static void write_member(const T& record, const plain_member_t<Owner, M>& member,
                             Variant::object_t& members) {
        members.emplace_back(member.key, codec<M>::write(record.*member.place));
    }

    template <typename Owner, typename M>
    static void write_member(const T& record, const optional_member_t<Owner, M>& member,
                             Variant::object_t& members) {
        const optional<M>& value = record.*member.place;
        if (value.has_value()) members.emplace_back(member.key, codec<M>::write(value.value()));
    }

    template <typename Owner, typename M>
    static void read_member(const Variant& object, const plain_member_t<Owner, M>& member, T& record) {
        const Variant* json = object.find(member.key);
        if (!json) throw_missing_member(member.key);
        read_value(member.key, *json, record.*member.place);
    }

    template <typename Owner, typename M>
    static void read_member(const Variant& object, const optional_member_t<Owner, M>& member, T& record) {
        if (const Variant* json = object.find(member.key))
            read_value(member.key, *json, record.*member.place);
    }

    template <typename M>
    static void read_value(std::string_view key, const Variant& json, M& out) try {
        codec<M>::read(json, out);
    } catch (const bad_deserialization_source& error) {
        rethrow_in_member(key, error);
    }
};

/// A shared record: an empty pointer is given a new record before reading, and is written as null.
template <described T>
struct codec<std::shared_ptr<T>> {
    static Variant write(const std::shared_ptr<T>& value) {
        return value ? codec<T>::write(*value) : Variant{};
    }
    static void read(const Variant& json, std::shared_ptr<T>& out) {
        if (!out) out = std::make_shared<T>();
        codec<T>::read(json, *out);
    }
};

}  // namespace tolvan::sedes::v1

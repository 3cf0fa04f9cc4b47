#pragma once

#include <array>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/codec.hpp>
#include <tolvan/sedes/v1/codec_errors.hpp>

namespace tolvan::sedes::v1 {

namespace detail {

template <typename Elements>
Variant write_elements(const Elements& values) {
    Variant::array_t elements;
    elements.reserve(values.size());
    for (const auto& value : values) elements.push_back(codec<typename Elements::value_type>::write(value));
    return Variant::array(std::move(elements));
}

template <typename T>
T read_element(const Variant& json, std::size_t index) try {
    T element{};
    codec<T>::read(json, element);
    return element;
} catch (const bad_deserialization_source& error) {
    rethrow_in_element(index, error);
}

template <typename T>
T read_member(const Variant& json, std::string_view key) try {
    T member{};
    codec<T>::read(json, member);
    return member;
} catch (const bad_deserialization_source& error) {
    rethrow_in_member(key, error);
}

}  // namespace detail

template <typename T>
struct codec<std::vector<T>> {
    static Variant write(const std::vector<T>& values) { return detail::write_elements(values); }
    static void read(const Variant& json, std::vector<T>& out) {
        const Variant::array_t* elements = json.as_array();
        if (!elements) throw_wrong_kind("an array", json);
        out.clear();
        for (const Variant& element : *elements) out.push_back(detail::read_element<T>(element, out.size()));
    }
};

/// An array of exactly so many elements.
template <typename T, std::size_t Size>
struct codec<std::array<T, Size>> {
    static Variant write(const std::array<T, Size>& values) { return detail::write_elements(values); }
    static void read(const Variant& json, std::array<T, Size>& out) {
        const Variant::array_t* elements = json.as_array();
        if (!elements) throw_wrong_kind("an array", json);
        if (elements->size() != Size) throw_wrong_size(Size, elements->size());
        for (std::size_t i = 0; i < Size; ++i) out[i] = detail::read_element<T>((*elements)[i], i);
    }
};

/// An object with any keys.
template <typename T>
struct codec<std::map<std::string, T>> {
    static Variant write(const std::map<std::string, T>& values) {
        Variant::object_t members;
        members.reserve(values.size());
        for (const auto& [key, value] : values) members.emplace_back(key, codec<T>::write(value));
        return Variant::object(std::move(members));
    }
    static void read(const Variant& json, std::map<std::string, T>& out) {
        const Variant::object_t* members = json.as_object();
        if (!members) throw_wrong_kind("an object", json);
        out.clear();
        for (const auto& [key, member] : *members) out.emplace(key, detail::read_member<T>(member, key));
    }
};

}  // namespace tolvan::sedes::v1

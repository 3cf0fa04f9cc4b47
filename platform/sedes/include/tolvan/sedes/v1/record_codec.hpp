#pragma once

#include <memory>
#include <string_view>
#include <tuple>
#include <utility>

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/codec.hpp>
#include <tolvan/sedes/v1/codec_errors.hpp>
#include <tolvan/sedes/v1/composite.hpp>

namespace tolvan::sedes::v1 {

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

    template <typename Owner, typename Optional>
    static void write_member(const T& record, const optional_member_t<Owner, Optional>& member,
                             Variant::object_t& members) {
        const Optional& value = record.*member.place;
        if (value.has_value()) members.emplace_back(member.key, codec<Optional>::write(value));
    }

    template <typename Owner, typename M>
    static void read_member(const Variant& object, const plain_member_t<Owner, M>& member, T& record) {
        const Variant* json = object.find(member.key);
        if (!json) throw_missing_member(member.key);
        read_value(member.key, *json, record.*member.place);
    }

    template <typename Owner, typename Optional>
    static void read_member(const Variant& object, const optional_member_t<Owner, Optional>& member,
                            T& record) {
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

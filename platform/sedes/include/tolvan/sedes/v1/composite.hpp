#pragma once

#include <optional>
#include <string_view>
#include <tuple>

#include <tolvan/sedes/v1/optional.hpp>

// A record describes itself once, for reading and writing, with a static member function:
//
//     struct request_t {
//         std::string reply_topic;
//         optional<opaque_json_block> payload;
//
//         static constexpr auto description() {
//             return composite(plain("replyTopic", &request_t::reply_topic),
//                              optional_member("payload", &request_t::payload));
//         }
//     };
//
// Members are written in that order. The function may name private members, and members of a base.
namespace tolvan::sedes::v1 {

/// A member that is always written and that must be there when reading.
template <typename Owner, typename T>
struct plain_member_t {
    std::string_view key;
    T Owner::*place;
};

/// A member that is left out when null, and that may be absent or null when reading.
template <typename Owner, typename Optional>
struct optional_member_t {
    std::string_view key;
    Optional Owner::*place;
};

/// Describes a required member. `key` must outlive the description: a literal.
template <typename Owner, typename T>
constexpr plain_member_t<Owner, T> plain(std::string_view key, T Owner::*place) {
    return {key, place};
}

/// Describes an optional member. `key` must outlive the description: a literal.
template <typename Owner, typename T>
constexpr optional_member_t<Owner, optional<T>> optional_member(std::string_view key,
                                                                optional<T> Owner::*place) {
    return {key, place};
}

/// The same for the standard library's optional.
template <typename Owner, typename T>
constexpr optional_member_t<Owner, std::optional<T>> optional_member(std::string_view key,
                                                                     std::optional<T> Owner::*place) {
    return {key, place};
}

/// The members of a record, in the order in which they are read and written.
template <typename... Members>
constexpr std::tuple<Members...> composite(Members... members) {
    return {members...};
}

/// A record with a description.
template <typename T>
concept described = requires {
    T::description();
};

}  // namespace tolvan::sedes::v1

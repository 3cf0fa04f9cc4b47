#pragma once

#include <array>
#include <string_view>
#include <type_traits>

// An enumeration is a number in JSON, unless a function beside it gives its enumerators names:
//
//     enum class heater { off, on };
//
//     constexpr auto description(heater) {
//         return enumeration(enumerator("off", heater::off), enumerator("on", heater::on));
//     }
//
// A friend function does the same for an enumeration inside a class.
namespace tolvan::sedes::v1 {

/// An enumerator and its name in JSON.
template <typename Enum>
struct enumerator_t {
    std::string_view name;
    Enum value;
};

/// Names one enumerator. `name` must outlive the description: a literal.
template <typename Enum>
constexpr enumerator_t<Enum> enumerator(std::string_view name, Enum value) {
    return {name, value};
}

/// The enumerators that have a form in JSON. Of two with the same value the first name is written.
template <typename Enum, typename... Same>
constexpr std::array<enumerator_t<Enum>, 1 + sizeof...(Same)> enumeration(enumerator_t<Enum> first,
                                                                          Same... further) {
    return {first, further...};
}

/// An enumeration with a description.
template <typename T>
concept described_enum = std::is_enum_v<T> && requires(T value) {
    description(value);
};

}  // namespace tolvan::sedes::v1

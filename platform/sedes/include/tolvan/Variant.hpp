#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tolvan {

/// A JSON value of any kind. Objects keep the order of their keys and have each key once.
///
/// Copies are cheap: texts, arrays and objects are immutable and shared between copies. No value is nested
/// deeper than `max_depth`, so walking one recursively is safe. A moved-from value is null.
class Variant {
  public:
    using array_t = std::vector<Variant>;
    using object_t = std::vector<std::pair<std::string, Variant>>;
    enum class kind_t { null, boolean, integer, number, string, array, object };

    /// Arrays and objects within each other, a lone array counting 1.
    static constexpr std::size_t max_depth = 256;

    /// Null.
    Variant() = default;
    Variant(const Variant&) = default;
    Variant(Variant&& other) noexcept : value{std::exchange(other.value, {})} {}
    /// By value, so that what is assigned may lie inside what this value holds.
    Variant& operator=(Variant other) noexcept {
        value.swap(other.value);
        return *this;
    }
    ~Variant() = default;

    static Variant boolean(bool flag);
    static Variant integer(std::int64_t number);
    static Variant unsigned_integer(std::uint64_t number);
    /// Infinities and NaN have no JSON form: they are written as null.
    static Variant number(double number);
    static Variant string(std::string text);
    /// Throws std::length_error when the array would be nested deeper than `max_depth`.
    static Variant array(array_t elements);
    /// A key that occurs more than once keeps its first place and its last value.
    /// Throws std::length_error when the object would be nested deeper than `max_depth`.
    static Variant object(object_t members);

    /// Reads exactly one JSON text. An integer that needs more than 64 bits becomes a double.
    /// Throws sedes::v1::bad_deserialization_source, with a text of bounded length, for anything else:
    /// trailing text, too deep nesting, invalid UTF-8, a number beyond the range of a double.
    static Variant fromJson(const std::string& text);

    /// The compact JSON text. What is not valid UTF-8 is written as U+FFFD.
    std::string toJson() const;

    kind_t kind() const noexcept;
    /// For messages: "null", "a boolean", "an integer", ...
    const char* kind_name() const noexcept;
    bool is_null() const noexcept { return kind() == kind_t::null; }

    /// Empty or nullptr when the value is of another kind. Pointers live as long as this value is unchanged.
    std::optional<bool> as_boolean() const noexcept;
    const std::string* as_string() const noexcept;
    const array_t* as_array() const noexcept;
    const object_t* as_object() const noexcept;
    /// The nearest double of an integer or a number; empty for another kind.
    std::optional<double> as_number() const noexcept;
    /// Empty when the value is not an integer, or is one that T cannot hold.
    template <typename T>
    std::optional<T> as_integer() const noexcept;

    /// The member of that key; nullptr when there is none or when this is not an object.
    const Variant* find(std::string_view key) const noexcept;

    /// Gives an object one more member, or an existing one a new value; null counts as an empty object. Takes
    /// time in proportion to the object: many members are better given to object() at once.
    /// Throws std::logic_error for another kind, std::length_error for too deep nesting.
    void set(std::string key, Variant member);

  private:
    struct array_node;
    struct object_node;
    using text_pointer = std::shared_ptr<const std::string>;
    using array_pointer = std::shared_ptr<const array_node>;
    using object_pointer = std::shared_ptr<const object_node>;
    using value_t = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, text_pointer,
                                 array_pointer, object_pointer>;

    explicit Variant(value_t initial) noexcept : value{std::move(initial)} {}
    std::size_t depth() const noexcept;
    static std::size_t depth_around(std::size_t deepest_child);

    value_t value;
};

template <typename T>
std::optional<T> Variant::as_integer() const noexcept {
    if (const auto* number = std::get_if<std::int64_t>(&value); number && std::in_range<T>(*number))
        return static_cast<T>(*number);
    if (const auto* number = std::get_if<std::uint64_t>(&value); number && std::in_range<T>(*number))
        return static_cast<T>(*number);
    return std::nullopt;
}

}  // namespace tolvan

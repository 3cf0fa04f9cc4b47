#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include <tolvan/sedes/v1/missing_value.hpp>

namespace tolvan::sedes::v1 {

/// A member that may hold a value, be null, or be missing altogether ("set" is clear).
template <typename T>
class optional {
  public:
    using value_type = T;

    /// Set, and null.
    optional() = default;
    optional(T initial) : held{std::move(initial)} {}

    optional& operator=(T replacement) {
        held = std::move(replacement);
        set = true;
        return *this;
    }

    bool is_set() const noexcept { return set; }

    /// Throws missing_value when not set.
    bool has_value() const {
        if (!set) missing_value::throw_one();
        return held.has_value();
    }

    /// Throws missing_value when not set, std::bad_optional_access when null.
    const T& value() const { return has_value() ? *held : throw std::bad_optional_access{}; }
    T& value() { return const_cast<T&>(std::as_const(*this).value()); }

    /// Makes it null, and set.
    void reset() noexcept {
        held.reset();
        set = true;
    }

    /// Clears "set": from now on reading it throws missing_value.
    void mark_missing() noexcept {
        held.reset();
        set = false;
    }

  private:
    std::optional<T> held;
    bool set = true;
};

}  // namespace tolvan::sedes::v1

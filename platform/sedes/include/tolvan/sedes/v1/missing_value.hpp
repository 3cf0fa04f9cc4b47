#pragma once

#include <stdexcept>

namespace tolvan::sedes::v1 {

/// A member was read whose "set" flag is clear.
class [[gnu::visibility("default")]] missing_value : public std::logic_error {
  public:
    missing_value();
    missing_value(const missing_value&) = default;
    missing_value& operator=(const missing_value&) = default;
    ~missing_value() override;

    /// Throws a missing_value.
    [[noreturn]] static void throw_one();
};

}  // namespace tolvan::sedes::v1

#pragma once

#include <string>
#include <utility>

#include <tolvan/Variant.hpp>

namespace tolvan::sedes::v1 {

/// One JSON value that is passed on without a look inside. Made by default it is JSON null.
class opaque_json_block {
  public:
    opaque_json_block() = default;
    explicit opaque_json_block(Variant content) : json{std::move(content)} {}

    /// Throws bad_deserialization_source when `text` is not exactly one JSON text.
    static opaque_json_block from_string(const std::string& text);

    /// The value as compact JSON text.
    std::string to_string() const;
    const Variant& variant() const noexcept { return json; }

  private:
    Variant json;
};

}  // namespace tolvan::sedes::v1

#pragma once

#include <stdexcept>
#include <string>

namespace tolvan::sedes::v1 {

/// A text is not JSON, or its JSON does not fit the type that it is to be read into.
class [[gnu::visibility("default")]] bad_deserialization_source : public std::runtime_error {
  public:
    explicit bad_deserialization_source(const std::string& what);
    bad_deserialization_source(const bad_deserialization_source&) = default;
    bad_deserialization_source& operator=(const bad_deserialization_source&) = default;
    ~bad_deserialization_source() override;
};

}  // namespace tolvan::sedes::v1

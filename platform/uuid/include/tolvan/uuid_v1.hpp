#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace tolvan {
class uuid_v1;
}

namespace std {
/// The 36 characters of `id`: lower-case hexadecimal digits in groups of 8-4-4-4-12.
string to_string(const tolvan::uuid_v1& id);
}  // namespace std

namespace tolvan {

/// A universally unique identifier. Made by default it is nil, all zeros.
class uuid_v1 {
  public:
    uuid_v1() = default;

    /// Replaces the identifier with a random one.
    void randomize();

    friend bool operator==(const uuid_v1&, const uuid_v1&) = default;

  private:
    friend std::string std::to_string(const uuid_v1& id);

    std::array<std::uint8_t, 16> bytes{};
};

}  // namespace tolvan

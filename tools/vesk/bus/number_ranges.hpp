#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tolvan::vesk::tool {

/// A set of numbers of which many follow one another.
class number_ranges {
  public:
    number_ranges() = default;
    explicit number_ranges(std::vector<std::uint64_t> numbers);

    /// Adds numbers that are greater than all before.
    void append(const number_ranges& greater);

    /// How many numbers there are.
    std::uint64_t count() const { return amount; }

    /// For people: "3-17, 40".
    std::string text() const;

  private:
    struct range {
        std::uint64_t first, last;
    };
    void append(const range& greater);
    static std::string text_of(const range& shown);

    std::vector<range> ranges;
    std::uint64_t amount = 0;
};

}  // namespace tolvan::vesk::tool

#pragma once

#include <array>
#include <cstdint>
#include <optional>

namespace tolvan::vesk::tool {

/// Ages of messages in whole milliseconds, counted in bins: each age below 16 ms has its own, above that a
/// bin is at most an eighth as wide as its ages. The last one has everything from a minute on.
class age_histogram {
  public:
    void add(std::int64_t age_ms);

    void clear();

    /// The least age that so many of 100 ages do not exceed, as the last age of its bin; none without ages.
    std::optional<std::int64_t> percentile(unsigned percent) const;

  private:
    static constexpr std::size_t bins = 112;

    std::array<std::uint32_t, bins> counts{};
    std::uint64_t total = 0;
};

}  // namespace tolvan::vesk::tool

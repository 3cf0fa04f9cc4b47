#include "observing/age_histogram.hpp"

#include <algorithm>
#include <bit>

namespace tolvan::vesk::tool {

namespace {

// The first three bits after the leading one tell the bin within an octave.
constexpr unsigned bins_an_octave = 8;
constexpr std::uint64_t exact_below = 2 * bins_an_octave;

std::size_t bin_of(std::uint64_t age) {
    if (age < exact_below) return static_cast<std::size_t>(age);
    const auto octaves = static_cast<unsigned>(std::bit_width(age)) - 4;
    return static_cast<std::size_t>(octaves * bins_an_octave + (age >> octaves));
}

std::int64_t last_age_of(std::size_t bin) {
    if (bin < exact_below) return static_cast<std::int64_t>(bin);
    const std::size_t octaves = bin / bins_an_octave - 1;
    const std::size_t next_in_octave = bin % bins_an_octave + bins_an_octave + 1;
    return static_cast<std::int64_t>(next_in_octave << octaves) - 1;
}

}  // namespace

void age_histogram::add(std::int64_t age_ms) {
    const auto age = static_cast<std::uint64_t>(std::max<std::int64_t>(age_ms, 0));
    ++counts.at(std::min(bin_of(age), bins - 1));
    ++total;
}

void age_histogram::clear() {
    counts.fill(0);
    total = 0;
}

std::optional<std::int64_t> age_histogram::percentile(unsigned percent) const {
    if (total == 0) return std::nullopt;
    const std::uint64_t rank = std::max<std::uint64_t>((total * percent + 99) / 100, 1);
    std::uint64_t counted = counts.front();
    std::size_t bin = 0;
    while (counted < rank) counted += counts.at(++bin);
    return last_age_of(bin);
}

}  // namespace tolvan::vesk::tool

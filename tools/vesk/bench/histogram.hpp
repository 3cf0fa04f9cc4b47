#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tolvan::vesk::tool {

/// A rank among sorted values.
struct percentile {
    const char* name;
    unsigned per_mille;
};

/// What is told about measured times.
inline constexpr std::array percentiles = {percentile{"min", 0},     percentile{"p50", 500},
                                           percentile{"p90", 900},   percentile{"p99", 990},
                                           percentile{"p99.9", 999}, percentile{"max", 1000}};

/// The smallest value that so many of the sorted values do not exceed. There must be one.
double value_at(unsigned per_mille, const std::vector<double>& sorted);

/// Bins of equal width on a logarithmic axis: the bin of a value, and where a bin begins.
inline constexpr int bins_a_decade = 20;
int bin_of(double value);
double bin_begin(int bin);

/// How many of the sorted values, all above 0, lie in each bin from `first` to `last`, those included.
std::vector<std::uint64_t> histogram(const std::vector<double>& sorted, int first, int last);

}  // namespace tolvan::vesk::tool

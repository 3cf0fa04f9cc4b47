#include "bench/histogram.hpp"

#include <algorithm>
#include <cmath>

namespace tolvan::vesk::tool {

double value_at(unsigned per_mille, const std::vector<double>& sorted) {
    const std::uint64_t rank = (std::uint64_t{per_mille} * sorted.size() + 999) / 1000;
    return sorted.at(static_cast<std::size_t>(std::max<std::uint64_t>(rank, 1) - 1));
}

int bin_of(double value) {
    return static_cast<int>(std::floor(std::log10(value) * bins_a_decade));
}

double bin_begin(int bin) {
    return std::pow(10.0, static_cast<double>(bin) / bins_a_decade);
}

std::vector<std::uint64_t> histogram(const std::vector<double>& sorted, int first, int last) {
    std::vector<std::uint64_t> bins(static_cast<std::size_t>(last - first + 1));
    for (const double value : sorted)
        if (const int bin = bin_of(value); first <= bin && bin <= last)
            ++bins[static_cast<std::size_t>(bin - first)];
    return bins;
}

}  // namespace tolvan::vesk::tool

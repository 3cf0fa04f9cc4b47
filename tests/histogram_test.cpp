#include "histogram.hpp"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <numeric>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tolvan::vesk::tool {
namespace {

using testing::ElementsAre;

std::vector<double> up_to(std::size_t count) {
    std::vector<double> values(count);
    std::iota(values.begin(), values.end(), 1.0);
    return values;
}

TEST(percentile, is_the_smallest_value_that_so_many_do_not_exceed) {
    const auto told_of = [](const std::vector<double>& sorted) {
        std::vector<double> told;
        std::transform(percentiles.begin(), percentiles.end(), std::back_inserter(told),
                       [&](const percentile& asked) { return value_at(asked.per_mille, sorted); });
        return told;
    };
    EXPECT_THAT(told_of({7}), ElementsAre(7, 7, 7, 7, 7, 7));
    EXPECT_THAT(told_of({1, 2}), ElementsAre(1, 1, 2, 2, 2, 2));
    EXPECT_THAT(told_of(up_to(10)), ElementsAre(1, 5, 9, 10, 10, 10));
    EXPECT_THAT(told_of(up_to(1001)), ElementsAre(1, 501, 901, 991, 1000, 1001));
}

TEST(histogram, counts_each_value_in_the_bin_it_lies_in) {
    for (int bin = -2 * bins_a_decade; bin <= 3 * bins_a_decade; ++bin) {
        EXPECT_EQ(bin_of(bin_begin(bin) * 1.0001), bin);
        EXPECT_EQ(bin_of(bin_begin(bin) * 0.9999), bin - 1);
    }
    EXPECT_THAT(histogram({0.5, 1.01, 1.02, 1.2, 9}, 0, 2), ElementsAre(2, 1, 0));
    EXPECT_THAT(histogram({}, -1, 0), ElementsAre(0, 0));
}

}  // namespace
}  // namespace tolvan::vesk::tool

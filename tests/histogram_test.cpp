#include "bench/histogram.hpp"

#include <gmock/gmock.h>

namespace tolvan::vesk::tool {
namespace {

using testing::ElementsAre;

TEST(percentile, is_the_smallest_value_that_so_many_do_not_exceed) {
    std::vector<double> values;
    while (values.size() < 1001) values.push_back(static_cast<double>(values.size() + 1));
    std::vector<double> told;
    for (const percentile& asked : percentiles) told.push_back(value_at(asked.per_mille, values));
    EXPECT_THAT(told, ElementsAre(1, 501, 901, 991, 1000, 1001));
    EXPECT_EQ(value_at(500, {1, 2}), 1);
    EXPECT_EQ(value_at(990, {1, 2}), 2);
}

TEST(histogram, counts_each_value_in_the_bin_it_lies_in) {
    for (int bin = -2 * bins_a_decade; bin <= 3 * bins_a_decade; ++bin) {
        EXPECT_EQ(bin_of(bin_begin(bin) * 1.0001), bin);
        EXPECT_EQ(bin_of(bin_begin(bin) * 0.9999), bin - 1);
    }
    EXPECT_THAT(histogram({0.5, 1.01, 1.02, 1.2, 9}, 0, 2), ElementsAre(2, 1, 0));
}

}  // namespace
}  // namespace tolvan::vesk::tool

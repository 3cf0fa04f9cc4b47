#pragma once

#include <array>
#include <string>
#include <vector>

#include <tolvan/Variant.hpp>

#include "observing/topic_rates.hpp"

namespace tolvan::vesk::tool {

/// One column of the table of topics, which it can be sorted by.
struct rate_column {
    char key;          ///< names the column on the keyboard
    const char* name;  ///< what it is called there
    const char* title;
    std::size_t width;
    std::string (*text)(const topic_rates::row&);
    double (*rank)(const topic_rates::row&);  ///< rows of a higher one come first
};

extern const std::array<rate_column, 8> rate_columns;

/// The column that the table is sorted by unless another one is asked for.
inline constexpr std::size_t usual_order = 0;

/// The titles of the columns, above lines of `rate_line`.
std::string rate_heading();

/// One line of the table, fit for a terminal.
std::string rate_line(const topic_rates::row& row);

/// Brings as many rows as asked for to the front, in the order of that column; equal ones by their topics.
void sort_first(std::vector<topic_rates::row>& rows, std::size_t count, std::size_t column);

/// A line above the table: all topics together. `requests_in_flight` is empty when nobody knows.
std::string rate_summary(const topic_rates::interval& interval,
                         std::optional<std::size_t> requests_in_flight);

/// All of an interval, in the order of its rows.
Variant as_variant(const topic_rates::interval& interval, std::optional<std::size_t> requests_in_flight);

}  // namespace tolvan::vesk::tool

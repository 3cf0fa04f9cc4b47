#include "bus/number_ranges.hpp"

#include <algorithm>

namespace tolvan::vesk::tool {

number_ranges::number_ranges(std::vector<std::uint64_t> numbers) {
    std::sort(numbers.begin(), numbers.end());
    for (const std::uint64_t each : numbers) append({each, each});
}

void number_ranges::append(const number_ranges& greater) {
    for (const range& each : greater.ranges) append(each);
}

void number_ranges::append(const range& greater) {
    amount += greater.last - greater.first + 1;
    if (!ranges.empty() && ranges.back().last + 1 == greater.first)
        ranges.back().last = greater.last;
    else
        ranges.push_back(greater);
}

std::string number_ranges::text() const {
    std::string text;
    for (const range& each : ranges) text += (text.empty() ? "" : ", ") + text_of(each);
    return text;
}

std::string number_ranges::text_of(const range& shown) {
    const std::string first = std::to_string(shown.first);
    return shown.first == shown.last ? first : first + "-" + std::to_string(shown.last);
}

}  // namespace tolvan::vesk::tool

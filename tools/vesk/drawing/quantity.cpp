#include "drawing/quantity.hpp"

#include <array>

#include <fmt/format.h>

namespace tolvan::vesk::tool {

namespace {

using names = std::array<const char*, 5>;
constexpr names of_counts = {"", "k", "M", "G", "T"};
constexpr names of_bytes = {"B", "KiB", "MiB", "GiB", "TiB"};

int decimals_of(double shown, bool is_smallest_unit) {
    if (is_smallest_unit) return shown > 0 && shown < 9.95 ? 1 : 0;
    return shown < 9.995 ? 2 : shown < 99.95 ? 1 : 0;
}

}  // namespace

unit unit_for(double largest, quantity kind) {
    const double base = kind == quantity::bytes ? 1024 : 1000;
    const names& all = kind == quantity::bytes ? of_bytes : of_counts;
    double size = 1;
    std::size_t power = 0;
    for (; power + 1 < all.size() && largest >= size * base; ++power) size *= base;
    return {size, all[power]};
}

std::string as_text(double number, quantity kind) {
    const unit chosen = unit_for(number, kind);
    const double shown = number / chosen.size;
    const bool is_whole = shown == static_cast<double>(static_cast<long long>(shown));
    return fmt::format("{:.{}f}{}{}", shown, is_whole ? 0 : decimals_of(shown, chosen.size == 1),
                       chosen.name.empty() ? "" : " ", chosen.name);
}

}  // namespace tolvan::vesk::tool

#pragma once

#include <string>

namespace tolvan::vesk::tool {

/// How numbers of a kind are written: by powers of 1000 ("12.3 k") or of 1024 ("12.3 KiB").
enum class quantity { count, bytes };

/// The power by which numbers up to `largest` are written, and what stands behind them.
struct unit {
    double size;
    std::string name;
};

/// The largest unit that is not above `largest`, or else the smallest.
unit unit_for(double largest, quantity kind);

/// That number with three digits or so: "950", "12.3 k", "1.50 MiB".
std::string as_text(double number, quantity kind);

}  // namespace tolvan::vesk::tool

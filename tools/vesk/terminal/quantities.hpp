#pragma once

#include <chrono>
#include <string>

namespace tolvan::vesk::tool {

/// A number for people, with about three digits and a decimal prefix: amount(12345, "B") is "12.3 kB".
std::string amount(double value, const char* unit);

/// A span of time for people: "3.1 ms", "12 s", "5.5 min", "3 h", "2 d".
std::string span(std::chrono::duration<double> time);

}  // namespace tolvan::vesk::tool

#pragma once

#include <cstdlib>
#include <iostream>
#include <string>

namespace tolvan::fuzz {

/// Ends the process, so that the fuzzer keeps the input, unless `holds`.
inline void require(bool holds, const std::string& what) {
    if (holds) return;
    std::cerr << "does not hold: " << what << '\n';
    std::abort();
}

}  // namespace tolvan::fuzz

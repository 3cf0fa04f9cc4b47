#include "drawing/round_step.hpp"

#include <cmath>
#include <initializer_list>

namespace tolvan::vesk::tool {

double round_step_from(double least) {
    const double power = std::pow(10.0, std::floor(std::log10(least)));
    for (const double digit : {1.0, 2.0, 5.0})
        if (digit * power >= least) return digit * power;
    return 10 * power;
}

}  // namespace tolvan::vesk::tool

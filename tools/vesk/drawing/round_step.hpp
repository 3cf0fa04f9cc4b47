#pragma once

namespace tolvan::vesk::tool {

/// The smallest of the steps of 1, 2 and 5 times a power of ten that is not below `least`, which is above 0.
double round_step_from(double least);

}  // namespace tolvan::vesk::tool

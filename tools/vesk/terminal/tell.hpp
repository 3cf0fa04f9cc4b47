#pragma once

#include <string>

namespace tolvan::vesk::tool {

/// Says something to the person at the terminal: a line on stderr that begins "vesk:". Never waits and never
/// fails; a line that stderr does not take is counted, and the number said before the next that it takes.
/// To be called on the main thread.
void tell(const std::string& text);

/// Says how many lines were not taken, if there are any and stderr takes something again.
void tell_what_was_missed();

}  // namespace tolvan::vesk::tool

#pragma once

#include <functional>
#include <string>

namespace tolvan::vesk::tool {

/// Says something to the person at the terminal: on stderr, and each line of it begins "vesk:". Never waits
/// and never fails; a line that stderr does not take is counted, and the number said before the next that it
/// takes. To be called on the main thread.
void tell(const std::string& text);

/// Says that the last line of stderr is left without an end, as a progress bar is: the next `tell` takes its
/// place.
void leave_line_open();

/// Has `listener` called with what would be said, until it is called with none: for who has the whole
/// terminal.
void tell_instead(std::function<void(const std::string&)> listener);

/// Says how many lines were not taken, if there are any and stderr takes something again.
void tell_what_was_missed();

}  // namespace tolvan::vesk::tool

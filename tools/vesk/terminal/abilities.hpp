#pragma once

namespace tolvan::vesk::tool {

/// Whether that descriptor is a terminal that follows control sequences: any but the one called "dumb".
bool moves_cursor(int descriptor);

/// Whether it is one that may be sent colours: NO_COLOR in the environment, with any text, says no.
bool shows_colours(int descriptor);

}  // namespace tolvan::vesk::tool

#pragma once

#include <string>
#include <vector>

namespace tolvan::vesk::tool {

/// The one of the names that somebody who typed `given` may have meant: a few characters are different,
/// missing, too many or exchanged, or one of the two begins with the other. Empty when there is none.
std::string nearest(const std::string& given, const std::vector<std::string>& names);

}  // namespace tolvan::vesk::tool

#pragma once

#include <cstddef>
#include <string>

namespace tolvan::vesk::tool {

/// All that a descriptor gives, read to its end; waits for it. Of more than `most` bytes it reads no more
/// than tells so: the result is longer than `most` then. Throws std::system_error.
std::string whole_input(int descriptor, std::size_t most);

/// The same of the file of that name.
std::string whole_file(const std::string& name, std::size_t most);

}  // namespace tolvan::vesk::tool

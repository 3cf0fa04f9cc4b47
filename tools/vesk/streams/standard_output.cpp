#include "streams/standard_output.hpp"

#include <cerrno>
#include <iostream>
#include <system_error>

namespace tolvan::vesk::tool {

void put_out(const std::string& text) {
    std::cout << text << std::flush;
    if (!std::cout) throw std::system_error(errno, std::generic_category(), "could not write to stdout");
}

}  // namespace tolvan::vesk::tool

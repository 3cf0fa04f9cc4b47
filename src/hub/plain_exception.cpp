#include <cstring>

#include <tolvan/vesk/hub/plain_exception.hpp>

namespace tolvan::vesk::hub {

plain_exception::plain_exception(const std::string& text) : buffer{} {
    std::strncpy(buffer, text.c_str(), sizeof buffer - 1);
}

plain_exception::~plain_exception() = default;

const char* plain_exception::what() const noexcept {
    return buffer;
}

}  // namespace tolvan::vesk::hub

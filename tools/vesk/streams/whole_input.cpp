#include "streams/whole_input.hpp"

#include <array>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::vesk::tool {

std::string whole_input(int descriptor, std::size_t most) {
    std::string text;
    std::array<char, 65536> piece;
    while (text.size() <= most) {
        const ssize_t length = ::read(descriptor, piece.data(), piece.size());
        if (length == 0) break;
        if (length < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "could not read the input");
        if (length > 0) text.append(piece.data(), static_cast<std::size_t>(length));
    }
    return text;
}

std::string whole_file(const std::string& name, std::size_t most) {
    const wire::descriptor file(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0)
        throw std::system_error(errno, std::generic_category(), "could not open '" + name + "'");
    return whole_input(file.get(), most);
}

}  // namespace tolvan::vesk::tool

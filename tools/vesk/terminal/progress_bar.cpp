#include "terminal/progress_bar.hpp"

#include <iostream>

#include <fmt/format.h>
#include <unistd.h>

#include "terminal/abilities.hpp"
#include "terminal/tell.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr int width = 40;
constexpr const char* begin_of_bar = "\r\033[K";

}  // namespace

progress_bar::progress_bar() : on_terminal(moves_cursor(STDERR_FILENO)) {}

void progress_bar::show(const std::string& what, double share) const {
    if (!on_terminal) return;
    const std::string done(static_cast<std::size_t>(share * width), '#');
    std::cerr << fmt::format("{}{:<10} [{:.<{}}] {:3.0f} %", begin_of_bar, what, done, width, share * 100);
    leave_line_open();
}

void progress_bar::clear() const {
    if (on_terminal) std::cerr << begin_of_bar;
}

}  // namespace tolvan::vesk::tool

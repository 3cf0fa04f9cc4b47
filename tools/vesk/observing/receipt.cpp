#include "observing/receipt.hpp"

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace tolvan::vesk::tool {

void append_iso_time(std::string& to, std::chrono::system_clock::time_point moment) {
    using std::chrono::microseconds;
    const auto second = std::chrono::floor<std::chrono::seconds>(moment);
    const std::tm local = fmt::localtime(std::chrono::system_clock::to_time_t(second));
    const auto fraction = std::chrono::floor<microseconds>(moment - second);
    const std::string offset = fmt::format("{:%z}", local);
    fmt::format_to(std::back_inserter(to), "{:%FT%T}.{:06}{}:{}", local, fraction.count(),
                   offset.substr(0, 3), offset.substr(3));
}

void append_age(std::string& to, const wire::hub_message& message, const char* otherwise) {
    const auto age = wire::age_of(message);
    to += age ? fmt::format_int(*age).c_str() : otherwise;
}

}  // namespace tolvan::vesk::tool

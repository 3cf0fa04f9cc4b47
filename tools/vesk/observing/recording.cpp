#include "observing/recording.hpp"

#include <iterator>

#include <fmt/format.h>

#include "observing/json_text.hpp"
#include "observing/receipt.hpp"

namespace tolvan::vesk::tool {

void recording::append_header(std::string& to) const {
    to += R"({"vesk_record":1,"start":")";
    append_iso_time(to, start);
    to += "\"}\n";
}

void recording::append_message(std::string& to, const wire::hub_message& message) const {
    using std::chrono::microseconds;
    const auto since = std::chrono::steady_clock::now() - steady_start;
    const auto t = std::chrono::floor<microseconds>(since).count();
    fmt::format_to(std::back_inserter(to), R"({{"t":{}.{:06},)", t / 1'000'000, t % 1'000'000);
    append_json_members(to, message);
    to += "}\n";
}

void recording::append_end(std::string& to, const counts& counted) {
    fmt::format_to(std::back_inserter(to),
                   R"({{"vesk_record_end":{{"messages":{},"bytes":{},"lost":{},"hub_away_s":{:.3f}}}}})"
                   "\n",
                   counted.messages, counted.bytes, counted.lost, counted.hub_away.count());
}

}  // namespace tolvan::vesk::tool

#include "terminal/printable.hpp"

#include <gtest/gtest.h>

namespace tolvan::vesk::tool {

namespace {

using namespace std::string_view_literals;

TEST(Printable, escapes_what_controls_a_terminal_and_what_is_not_utf_8_and_nothing_else) {
    const struct {
        std::string_view text, shown;
    } cases[] = {
        {"", ""},
        {"plain ~ äöü € 𝄞 \xc2\xa0", "plain ~ äöü € 𝄞 \xc2\xa0"},
        {"\x1b[31m\a\r\n\t\0|\x7f"sv, R"(\x1b[31m\x07\x0d\x0a\x09\x00|\x7f)"},
        {"\xc2\x80\xc2\x9b\xc2\x9f", R"(\u0080\u009b\u009f)"},
        {"\xe2\x80\xa9\xe2\x80\xaa\xe2\x80\xae\xe2\x80\xaf", "\xe2\x80\xa9\\u202a\\u202e\xe2\x80\xaf"},
        {"\xe2\x81\xa5\xe2\x81\xa6\xe2\x81\xa9\xe2\x81\xaa", "\xe2\x81\xa5\\u2066\\u2069\xe2\x81\xaa"},
        {"\x9b|\xe4|\xff", R"(\x9b|\xe4|\xff)"},
        {"\xe2\x80", R"(\xe2\x80)"},                                            // cut off
        {"\xc0\x9b|\xe0\x82\x9b", R"(\xc0\x9b|\xe0\x82\x9b)"},                  // longer than need be
        {"\xed\xa0\x80|\xf4\x90\x80\x80", R"(\xed\xa0\x80|\xf4\x90\x80\x80)"},  // no characters
    };
    for (const auto& each : cases) EXPECT_EQ(printable(each.text), each.shown);
}

}  // namespace

}  // namespace tolvan::vesk::tool

#include <limits>
#include <memory>
#include <optional>

#include <gmock/gmock.h>

#include <tolvan/lumo/v1/stderr_sink.hpp>

#include "support/allocations.hpp"
#include "support/captured_log.hpp"

namespace {

using tolvan::test::allocations;
using tolvan::test::captured_log;
namespace lumo = tolvan::lumo::v1;
using milliseconds = std::chrono::duration<long long, std::milli>;

// The text that a call makes.
template <typename... Arguments>
std::string text_of(const char* format, const Arguments&... arguments) {
    const captured_log log;
    EXPECT_TRUE(lumo::log(0, "file", 1, "function", format, arguments...));
    return log.lines.at(0).substr(std::string("0 file function: ").size());
}

TEST(log_text, puts_each_argument_of_any_type_in_the_place_of_its_placeholder) {
    const std::string fill(28, '0'), longest = "{:" + fill + "}", too_long = "{:0" + fill + "}";
    EXPECT_EQ("a=1, b=two.", text_of("a={}, b={}.", 1, std::string("two")));
    EXPECT_EQ("1 {} {:x}", text_of("{} {} {:x}", 1)) << "surplus placeholders stand as they are";
    EXPECT_EQ("1", text_of("{}", 1, 2)) << "surplus arguments are not printed";
    EXPECT_EQ("{ 1 } {x}", text_of("{ {} } {x}", 1)) << "other braces stand for themselves";
    EXPECT_EQ("7 " + too_long + " 8", text_of((longest + " " + too_long + " {}").c_str(), 7, 8));
    EXPECT_EQ("   7|007", text_of("{:>4}|{:03}", 7, 7));
    EXPECT_EQ("7", text_of("{:%Q%j}", 7)) << "an unsuitable placeholder does not cost the value";
    const std::runtime_error error("");
    const std::exception& base = error;
    const char* const null_text = nullptr;
    EXPECT_EQ("(null) St13runtime_error -12ms",
              text_of("{} {} {}", null_text, typeid(base), milliseconds(-12)));
    EXPECT_EQ("-2147483648 4294967295", text_of("{} {}", std::numeric_limits<int>::min(), ~0U));
    EXPECT_EQ("65535 255 true false",
              text_of("{} {} {} {}", std::uint16_t(65535), std::uint8_t(255), true, false));
}

TEST(log_text, that_does_not_fit_is_cut_behind_a_whole_character) {
    for (const std::string character : {"7", "ä", "€", "😀"})
        for (std::size_t room = 0; room <= character.size(); ++room) {
            const std::string filler(4095 - room, 'x');
            const std::string whole = room == character.size() ? character : "";
            EXPECT_EQ(filler + whole, text_of("{}{}!", filler, character)) << "nothing follows the cut";
        }
    EXPECT_EQ(4095U, text_of("{}", std::string(1 << 20, 'y')).size());
}

TEST(log_text, cannot_forge_a_line) {
    const std::string hostile("a\nb\tc\x7f\x1b[31m\0d ä", 16);
    EXPECT_EQ("a?b?c??[31m?d ä", text_of("{}", hostile));
    EXPECT_EQ(
        "C1 ??\u00a0, “bidi” ????\u2029\u202f\u2065\u206a",
        text_of("C1 \u0080\u009f\u00a0, “bidi” {}\u2069\u2029\u202f\u2065\u206a", "\u202a\u202e\u2066"));
    EXPECT_EQ("\xc2", text_of("\xc2")) << "nothing is read behind the end";
    EXPECT_EQ("\xe2\x80", text_of("\xe2\x80"));
    lumo::detail::scrub_buffer = false;
    EXPECT_EQ("a\nb", text_of("{}", std::string("a\nb")));
    lumo::detail::scrub_buffer = true;
}

TEST(log_call, that_the_gate_refuses_does_not_evaluate_its_arguments) {
    int evaluated = 0;
    const auto log_each_level = [&] {
        for (int level = 0; level <= 3; ++level) LUMO_LOG(level, "file", "function", "{}", ++evaluated);
    };
    log_each_level();
    EXPECT_EQ(0, evaluated) << "without sinks not even errors are made";
    {
        const captured_log log(lumo::statistics);
        log_each_level();
        EXPECT_THAT(log.lines,
                    testing::ElementsAre("0 file function: 1", "1 file function: 2", "2 file function: 3"));
    }
    log_each_level();
    EXPECT_EQ(3, evaluated) << "the gate is shut again behind the last sink";
}

TEST(log_call, that_is_admitted_allocates_nothing) {
    const std::string text(5000, 'x');
    const std::runtime_error error("text");
    unsigned records = 0;
    const auto registration = lumo::add_sink(lumo::trace, [&records](const lumo::log_entry&) { ++records; });
    const auto before = allocations;
    LUMO_LOG(0, "file", "function", "{} {} {} {}", 1, std::uint16_t(2), true, typeid(error));
    LUMO_LOG(0, "file", "function", "{} {} {} {:>9}", error.what(), std::uint8_t(3), milliseconds(4), text);
    EXPECT_EQ(std::pair(before, 2U), std::pair(allocations, records));
}

TEST(stderr_sink, writes_a_whole_line_for_each_record_that_it_is_to_show) {
    const std::string longest(4095, 'x');
    testing::internal::CaptureStderr();
    {
        const auto log = lumo::log_to_stderr();
        LUMO_LOG(lumo::error, "file", "function", "{}", longest);
        lumo::log(lumo::warning, "file", 7, "function", "text");
        LUMO_LOG(lumo::statistics, "file", "function", "not shown");
    }
    LUMO_LOG(lumo::error, "file", "function", "not shown");
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("error file:[0-9]+ function: " + longest +
                                      "\nwarning file:7 function: text\n"));
}

TEST(sinks, come_and_go_one_by_one_also_while_they_are_walked_and_may_throw) {
    captured_log errors(lumo::error);
    auto traces = std::make_unique<captured_log>(lumo::trace);
    std::optional<captured_log> late;
    const auto throwing = lumo::add_sink(lumo::trace, [&](const lumo::log_entry&) {
        if (traces) late.emplace(lumo::trace);
        traces.reset();
        throw 1;
    });
    const captured_log behind(lumo::trace);
    for (const int level : {3, 0}) LUMO_LOG(level, "file", "function", "text");
    EXPECT_EQ(nullptr, traces);
    EXPECT_EQ(2U, behind.lines.size());
    EXPECT_EQ(1U, errors.lines.size());
    EXPECT_EQ(1U, late->lines.size()) << "what is added meanwhile waits for the next entry";
}

}  // namespace

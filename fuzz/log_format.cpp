// Any arguments of a log call: the message fits the buffer, holds no control character, and is what putting
// in the arguments one by one gives.
#include <regex>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include <tolvan/lumo/v1/log.hpp>

#include "require.hpp"

namespace {

using namespace tolvan;

constexpr std::size_t longest_text = 4095;

// C0, DEL, C1 and what controls the direction of writing, byte by byte.
std::string scrubbed(const std::string& text) {
    static const std::regex controls(
        "[\\0-\\x1f\\x7f]|\xc2[\x80-\x9f]|\xe2\x80[\xaa-\xae]|\xe2\x81[\xa6-\xa9]");
    return std::regex_replace(text, controls, "?");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::string text;
    static const auto registration =
        lumo::v1::add_sink(lumo::v1::trace, [](const lumo::v1::log_entry& entry) { text = entry.text; });
    FuzzedDataProvider input(data, size);
    const auto number = input.ConsumeIntegral<int>();
    const std::string first = input.ConsumeRandomLengthString();
    const std::string second = input.ConsumeRemainingBytesAsString().c_str();
    lumo::v1::log(lumo::v1::error, "file", 1, "function", "{}: {} {}", first, number, second.c_str());
    const std::string whole = first + ": " + std::to_string(number) + " " + second;
    fuzz::require(text == scrubbed(text), "without control characters");
    fuzz::require(text.size() <= longest_text, "fits the buffer");
    fuzz::require(scrubbed(whole).starts_with(text), "the arguments in the places of the placeholders");
    fuzz::require(whole.size() >= longest_text || text == scrubbed(whole), "all of it that fits");
    return 0;
}

// Any format with any arguments: the message fits the buffer, cannot forge a line, and where placeholders are
// plain it is what putting in the arguments one by one gives.
#include <algorithm>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include <tolvan/lumo/v1/log.hpp>

#include "require.hpp"

namespace {

using namespace tolvan;

constexpr std::size_t longest_text = 4095;

bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
}

std::string expected_text(std::string format, const std::vector<std::string>& arguments) {
    std::size_t from = 0;
    for (const auto& argument : arguments) {
        const auto placeholder = format.find("{}", from);
        if (placeholder == std::string::npos) break;
        format.replace(placeholder, 2, argument);
        from = placeholder + argument.size();
    }
    std::replace_if(format.begin(), format.end(), is_control, '?');
    return format;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::string text;
    static const auto registration =
        lumo::v1::add_sink(lumo::v1::trace, [](const lumo::v1::log_entry& entry) { text = entry.text; });
    FuzzedDataProvider input(data, size);
    const auto number = input.ConsumeIntegral<int>();
    const auto small = input.ConsumeIntegral<unsigned char>();
    const bool flag = input.ConsumeBool();
    const std::string first = input.ConsumeRandomLengthString();
    const std::string second = input.ConsumeRandomLengthString();
    const std::string format = input.ConsumeRemainingBytesAsString().c_str();
    // A width of a thousand million is formatted, then cut: slow, but nobody else than the code writes it.
    if (std::search_n(format.begin(), format.end(), 5, true,
                      [](char c, bool) { return c >= '0' && c <= '9'; }) != format.end())
        return 0;

    lumo::v1::log(lumo::v1::error, "file", 1, "function", format.c_str(), first, second.c_str(), number,
                  small, flag, std::chrono::duration<long long, std::milli>(number));
    fuzz::require(text.size() <= longest_text, "fits the buffer");
    fuzz::require(std::none_of(text.begin(), text.end(), is_control), "without control characters");
    if (format.find("{:") != std::string::npos) return 0;
    const std::string expected =
        expected_text(format, {first, second.c_str(), std::to_string(number), std::to_string(small),
                               flag ? "true" : "false", std::to_string(number) + "ms"});
    fuzz::require(expected.starts_with(text), "the arguments in the places of the placeholders");
    fuzz::require(text.size() + 3 >= std::min(expected.size(), longest_text), "all of it that fits");
    return 0;
}

#pragma once

#include <charconv>
#include <limits>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace tolvan::vesk::tool {

/// What keeps `text` from being one JSON value that a request can carry; empty when nothing does.
std::string objection_to_json(const std::string& text);

/// A check of an option: an empty text when `value` is fine, else what is wrong with it.
std::string is_json(const std::string& value);

std::string not_empty(const std::string& value);

/// Makes a check that refuses values with any of the `refused` characters, at which the bus cuts topics.
class without {
  public:
    explicit without(std::string refused) : characters(std::move(refused)) {}
    std::string operator()(const std::string& value) const;

  private:
    std::string characters;
};

/// Says that `text`, as the command line has it, is not such a number in that range.
std::string refusal(const std::string& text, const std::string& noun, const std::string& range);

/// Has an option take only numbers from `least` to `most`; to be given to its `transform`. `noun` says what
/// the number is, as in "a number of seconds". All of the text has to be one decimal number; CLI11 itself
/// would read 010 as 8, and take "nan".
template <typename Number>
CLI::Validator number_from(const std::string& noun, Number least,
                           Number most = std::numeric_limits<Number>::max()) {
    const std::string range = most == std::numeric_limits<Number>::max()
                                  ? fmt::format("from {} on", least)
                                  : fmt::format("from {} to {}", least, most);
    const auto check = [=](std::string& text) -> std::string {
        Number value{};
        const char* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data(), end, value);
        if (error != std::errc{} || rest != end || !(value >= least && value <= most))
            return refusal(text, noun, range);
        text = fmt::format("{}", value);
        return {};
    };
    return CLI::Validator(check, " " + range);  // as option_table wants it
}

}  // namespace tolvan::vesk::tool

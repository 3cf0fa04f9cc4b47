#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include <tolvan/wire/hub_message.hpp>

namespace tolvan::vesk::tool {

/// How a message is shown, with directives for its parts: %t topic, %p data, %l the data's length in bytes,
/// %x the data in hex, %I and %U the time of receipt, %a the age, %% a percent sign; \n, \t and \\.
class line_format {
  public:
    /// A message that has come in just now.
    struct received {
        const wire::hub_message& message;
        bool for_terminal;  ///< its texts are `printable`
        std::chrono::system_clock::time_point at = std::chrono::system_clock::now();
    };

    /// Throws std::invalid_argument, which names it, for what is no directive.
    explicit line_format(std::string_view text);

    void append(std::string& to, const received& shown) const;

  private:
    using directive = void (*)(std::string& to, const received& shown);

    struct part {
        std::string literal;
        directive then = nullptr;
    };

    static directive find_directive(std::string_view at);

    std::vector<part> parts;
};

}  // namespace tolvan::vesk::tool

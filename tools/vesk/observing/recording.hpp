#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include <tolvan/wire/hub_message.hpp>

namespace tolvan::vesk::tool {

/// The lines of a recording: one of JSON for each message, between a first and a last one.
/// docs/command.md has the format.
class recording {
  public:
    struct counts {
        std::uint64_t messages = 0;
        std::uint64_t bytes = 0;  ///< of their data
        std::uint64_t lost = 0;   ///< messages that came and were not recorded
        std::chrono::duration<double> hub_away{0};
    };

    /// Begins now.
    recording() = default;

    void append_header(std::string& to) const;

    /// Of a message that has come in just now.
    void append_message(std::string& to, const wire::hub_message& message) const;

    static void append_end(std::string& to, const counts& counted);

  private:
    std::chrono::system_clock::time_point start = std::chrono::system_clock::now();
    std::chrono::steady_clock::time_point steady_start = std::chrono::steady_clock::now();
};

}  // namespace tolvan::vesk::tool

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <tolvan/Variant.hpp>

namespace tolvan::vesk::tool {

/// A message as it stands in a recording.
struct recorded_message {
    double t = 0;  ///< seconds since the recording began
    std::string topic;
    std::string data;
};

/// Makes messages of the lines of a recording, whose form docs/command.md has.
class recording_reader {
  public:
    /// Takes the next line. Gives its message; none for the first and the last line of a recording. Throws
    /// refused_message, which names the line, for one that is of another form or cannot be published.
    std::optional<recorded_message> take(const std::string& line);

    /// Takes the end of the lines. Gives what people should know of the recording, "" for nothing. Throws
    /// refused_message when there was no line.
    std::string end() const;

    /// So many lines were taken.
    std::uint64_t lines() const { return taken; }

    /// The `t` of the last message.
    double last_t() const { return latest; }

  private:
    double counted(const char* name) const;
    Variant parsed(const std::string& line) const;
    void take_header(const Variant& header) const;
    recorded_message message_of(const Variant& line) const;
    double time_of(const Variant& line) const;
    std::string text_of(const Variant& line, const std::string& member) const;
    std::string checked(const std::string& member, std::string text) const;
    [[noreturn]] void refuse(const std::string& why) const;

    std::uint64_t taken = 0;
    std::uint64_t messages = 0;
    double latest = 0;
    std::optional<Variant> counts;  ///< what the last line says
};

}  // namespace tolvan::vesk::tool

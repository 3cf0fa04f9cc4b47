#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tolvan::vesk::toolkit {

/// The topics of probes begin with this; they are nobody's messages.
inline constexpr const char* probe_prefix = "vesk.probe.";

/// A probe topic that nobody else has, and the numbered topics below it.
class probe_topic {
  public:
    using number = std::uint64_t;

    probe_topic();

    /// Subscribing to it brings all numbers.
    const std::string& name() const { return text; }

    std::string with(number marker) const { return text + "." + std::to_string(marker); }

    /// The number of a topic below this one.
    std::optional<number> number_in(const std::string& topic) const;

  private:
    std::string text;
};

}  // namespace tolvan::vesk::toolkit

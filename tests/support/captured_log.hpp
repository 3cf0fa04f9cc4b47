#pragma once

#include <string>
#include <vector>

#include <tolvan/lumo/v1/log.hpp>

namespace tolvan::test {

/// Records what is logged while it lives, a line each: "LEVEL FILE FUNCTION: TEXT".
class captured_log {
  public:
    explicit captured_log(lumo::v1::level most_verbose = lumo::v1::trace)
        : registration(lumo::v1::add_sink(most_verbose, [this](const lumo::v1::log_entry& entry) {
              lines.push_back(std::to_string(entry.severity) + " " + entry.file + " " + entry.function +
                              ": " + entry.text);
          })) {}

    std::vector<std::string> lines;

  private:
    lumo::v1::sink_registration registration;
};

}  // namespace tolvan::test

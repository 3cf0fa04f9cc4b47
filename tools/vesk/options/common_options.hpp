#pragma once

#include <chrono>
#include <string>

namespace tolvan::vesk::tool {

/// What every subcommand is told.
struct common_options {
    std::string pub_endpoint;
    std::string sub_endpoint;
    int log_level = 0;

    /// For messages to people: both endpoints.
    std::string hub() const { return pub_endpoint + " and " + sub_endpoint; }
};

/// A number of seconds, more than 0.
using seconds = std::chrono::duration<double>;

/// A number of milliseconds, more than 0.
using milliseconds = std::chrono::duration<double, std::milli>;

}  // namespace tolvan::vesk::tool

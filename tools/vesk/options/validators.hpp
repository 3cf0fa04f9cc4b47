#pragma once

#include <string>

namespace tolvan::vesk::tool {

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

}  // namespace tolvan::vesk::tool

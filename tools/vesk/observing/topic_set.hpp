#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tolvan::vesk::tool {

/// Topics that somebody has asked for; each stands for all that go on after it with a ".".
class topic_set {
  public:
    /// No topic, or an empty one among them, stands for everything.
    explicit topic_set(const std::vector<std::string>& topics);

    /// Whether the set is everything.
    bool is_everything() const { return filters().front().empty(); }

    /// Whether one of the topics stands for that one.
    bool contains(std::string_view topic) const;

    /// What is probably wrong with a topic that somebody has asked for; empty when nothing is.
    static std::string hint_about(const std::string& topic);

    /// What a hub has to be asked for: the topics without those for which another one stands; never none.
    const std::vector<std::string>& filters() const { return sorted; }

  private:
    std::vector<std::string> sorted;  ///< in an order in which "." comes before any other character
};

}  // namespace tolvan::vesk::tool

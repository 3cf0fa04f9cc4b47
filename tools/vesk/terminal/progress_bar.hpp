#pragma once

#include <string>

namespace tolvan::vesk::tool {

/// One line on stderr that shows how far something is. Nothing unless stderr is a terminal
/// that can clear a line.
class progress_bar {
  public:
    progress_bar();

    /// Draws the line anew; `share` is from 0 to 1.
    void show(const std::string& what, double share) const;

    /// Makes the line free for other text.
    void clear() const;

  private:
    bool on_terminal;
};

}  // namespace tolvan::vesk::tool

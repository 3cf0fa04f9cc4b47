#pragma once

#include <string>

#include "options/common_options.hpp"
#include "terminal/event_process.hpp"

namespace tolvan::vesk::tool {

/// Tells the person at the terminal how it stands with the hub: that it is waited for, from one second
/// without it on, and whatever of the rest was asked for.
class hub_notes {
  public:
    enum class detail {
        waiting_only,  ///< for a command that is soon done
        all            ///< also that everything is ready, and that the hub was lost
    };

    /// Nothing is known of the hub so far.
    hub_notes(event_process& on, const common_options& common, detail wanted);

    /// The hub is there and knows what it has to know; does nothing when that was so already.
    void ready();

    /// The hub is not there any more; does nothing when it was not.
    void lost();

    /// Whether the last word was `ready`.
    bool is_ready() const { return there; }

  private:
    void tell_if_wanted(const std::string& text) const;

    event_process& process;
    const std::string hub;
    const detail wanted;
    bool there = false;
    event_process::timer patience;
};

}  // namespace tolvan::vesk::tool

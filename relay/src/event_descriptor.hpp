#pragma once

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::relay {

/// A flag that can be polled, and raised on any thread.
class event_descriptor {
  public:
    /// Throws `std::system_error`.
    event_descriptor();

    void raise() noexcept;
    void lower() noexcept;
    int get() const noexcept { return held.get(); }

  private:
    wire::descriptor held;
};

}  // namespace tolvan::relay

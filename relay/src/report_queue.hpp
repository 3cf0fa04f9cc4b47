#pragma once

#include <deque>
#include <mutex>
#include <vector>

#include "event_descriptor.hpp"
#include "tolvan/relay/hub.hpp"

namespace tolvan::relay {

/// Reports on their way from the relaying thread to the owner of the hub. Neither waits for the other.
class report_queue {
  public:
    /// Drops the oldest report when nobody takes them.
    void add(hub::report report);

    std::vector<hub::report> take();

    /// Readable while reports wait.
    int descriptor() const noexcept { return waiting.get(); }

  private:
    std::mutex access;
    std::deque<hub::report> reports;
    event_descriptor waiting;
};

}  // namespace tolvan::relay

#pragma once

#include <functional>

#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

#include "bus/numbered_topic.hpp"
#include "bus/session.hpp"

namespace tolvan::vesk::tool {

/// Numbered markers that go to the hub and come back. Messages of a process keep their order on both roads: a
/// marker that is back says that the hub has relayed everything published before it, and that it knows
/// every subscription made before.
class echo {
  public:
    using number = numbered_topic::number;

    /// Subscribes to a probe topic of its own; `returned` is called with the number of each marker that comes
    /// back, at most one per millisecond.
    explicit echo(std::function<void(number)> returned);

    void send(number marker);

  private:
    numbered_topic topic;
    v1::subscriber subscriber;
    v1::publisher publisher;
};

/// Sends markers until the first one is back, then calls `ready` once. Waits without limit for a hub that is
/// not there yet; released, it stops.
class readiness {
  public:
    readiness(session& on, std::function<void()> ready);

  private:
    void send_again();

    session& process;
    std::function<void()> when_ready;
    session::timer next;
    echo probe;
};

}  // namespace tolvan::vesk::tool

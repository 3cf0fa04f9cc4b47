#include "bus/echo.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr session::milliseconds probe_interval{20};

}  // namespace

echo::echo(std::function<void(number)> returned) {
    subscriber.subscribe(topic.name(), nullptr,
                         [topic = topic, returned = std::move(returned)](const auto& received, const auto&) {
                             if (const auto marker = topic.number_in(received)) returned(*marker);
                         });
}

void echo::send(number marker) {
    publisher.publish(topic.with(marker), "");
}

readiness::readiness(session& on, std::function<void()> ready)
    : process(on), when_ready(std::move(ready)), probe([this](echo::number) {
          next.reset();
          if (when_ready) std::exchange(when_ready, nullptr)();
      }) {
    send_again();
}

void readiness::send_again() {
    probe.send(0);
    next = process.after(probe_interval, [this] { send_again(); });
}

}  // namespace tolvan::vesk::tool

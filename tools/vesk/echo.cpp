#include "echo.hpp"

#include <algorithm>
#include <charconv>

#include <tolvan/uuid_v1.hpp>

namespace tolvan::vesk::tool {

namespace {

constexpr session::milliseconds probe_interval{20};

std::string own_topic() {
    uuid_v1 uuid;
    uuid.randomize();
    return probe_prefix + std::to_string(uuid);
}

}  // namespace

echo::echo(std::function<void(number)> returned) : topic(own_topic()) {
    const auto number_at = topic.size() + 1;
    subscriber.subscribe(
        topic, nullptr, [number_at, returned = std::move(returned)](const std::string& marker, const auto&) {
            number returned_number = 0;
            const char* const end = marker.data() + marker.size();
            const auto parsed =
                std::from_chars(marker.data() + std::min(number_at, marker.size()), end, returned_number);
            if (parsed.ec == std::errc() && parsed.ptr == end) returned(returned_number);
        });
}

void echo::send(number marker) {
    publisher.publish(topic + "." + std::to_string(marker), "");
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

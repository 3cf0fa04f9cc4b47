#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/relay/hub.hpp>
#include <tolvan/vesk/v1/connection.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace tolvan::test {

/// The bus as an application has it: the loaded library, the real loop, a hub over TCP.
class real_bus : public testing::Test {
  protected:
    ~real_bus() override { vesk::v1::release_backends(); }

    /// Runs the loop until the hub knows every subscription made before: a message that is repeated, to a
    /// topic that is subscribed to last, has come back.
    void await_hub() {
        const std::string topic = "probe." + std::to_string(++probes);
        vesk::v1::subscriber subscriber;
        event_loop_v1::holder<timer_impl_base> next;
        subscriber.subscribe(
            topic, [this](const auto&) { loop->stop(); }, nullptr);
        const std::function<void()> probe = [&] {
            publisher.publish(topic, "");
            next = loop->create_timer("probe", std::chrono::milliseconds(10), {}, probe);
        };
        probe();
        loop->run();
    }

    relay::hub hub{{"tcp://127.0.0.1:*", "tcp://127.0.0.1:*"}};
    std::shared_ptr<asio_event_loop> loop = std::make_shared<asio_event_loop>();
    vesk::v1::connection bus{{.pub_endpoint = hub.pub_endpoint(), .sub_endpoint = hub.sub_endpoint()}, loop};
    vesk::v1::publisher publisher;

  private:
    int probes = 0;
};

}  // namespace tolvan::test

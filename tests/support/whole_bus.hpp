#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tolvan/vesk/hub/connection_impl.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

#include "captured_log.hpp"
#include "hub_sides.hpp"
#include "manual_event_loop.hpp"

namespace tolvan::test {

using texts = std::vector<std::string>;

/// A publisher backend that keeps what is published.
class kept_publications : public vesk::v1::publisher::backend {
  public:
    void publish(vesk::v1::publisher*, const std::string& topic, const std::string& data) override {
        on_publish();
        topics.push_back(topic);
        texts.push_back(data);
    }

    std::function<void()> on_publish = [] {};  ///< called by each publication, before it is kept
    frames topics, texts;
};

/// All four backends over real sockets, with a clock set by hand and the test as the hub.
class whole_bus : public testing::Test {
  protected:
    whole_bus() {
        loop->clock = event_loop_v1::milliseconds(0);  // no latency report for an hour
        initialize();
    }
    ~whole_bus() override { vesk::v1::release_backends(); }

    void initialize() {
        vesk::hub::connection_impl connection;
        connection.set_event_loop(loop);
        connection.initialize({.pub_endpoint = hub.pub_endpoint(), .sub_endpoint = hub.sub_endpoint()});
        hub.meet_publisher();
    }

    /// Waits until the hub knows every subscription made so far.
    void settle() {
        vesk::v1::subscriber last;
        last.subscribe("settled", nullptr, nullptr);
        hub.await_filter(hub.set("settled"));
        last.revoke_subscriptions();
        hub.await_filter(hub.removed("settled"));
    }

    /// Relays messages and reads until the last of them has been received. A sentinel tells, whose own
    /// deliveries are dropped.
    void receive(const std::vector<frames>& messages) {
        vesk::v1::subscriber sentinel;
        bool received = false;
        sentinel.subscribe(
            "sentinel", [&](const auto&) { received = true; }, nullptr);
        settle();
        for (const auto& message : messages) hub.relay(message);
        hub.relay({"sentinel", ""});
        loop->run_until([&] { return received; });
        sentinel.revoke_subscriptions();
        hub.await_filter(hub.removed("sentinel"));
    }

    /// Topic and data of the next message that was published.
    std::pair<std::string, std::string> published() {
        const frames message = hub.published();
        return {message.at(0), message.at(1)};
    }

    /// From now on publications do not go any further.
    static std::shared_ptr<kept_publications> keep_publications() {
        const auto kept = std::make_shared<kept_publications>();
        vesk::v1::publisher::backend::instance = kept;
        return kept;
    }

    /// The texts that were logged since the last call, of a level up to `most_verbose`.
    texts logged(char most_verbose = '3') {
        texts lines;
        for (const auto& line : std::exchange(log.lines, {}))
            if (line.front() <= most_verbose) lines.push_back(line);
        return lines;
    }

    hub_sides hub;
    std::shared_ptr<manual_event_loop> loop = std::make_shared<manual_event_loop>();
    captured_log log;
};

/// "TYPE: TEXT" of an exception.
inline std::string described(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return std::string(typeid(error).name()) + ": " + error.what();
    }
}

}  // namespace tolvan::test

#pragma once

#include <functional>
#include <memory>
#include <string>

#include <tolvan/sedes/v1/json.hpp>
#include <tolvan/vesk/v1/named_client.hpp>

namespace tolvan::vesk::v1 {

/// Receives the messages of the topics that it has subscribed to. Its destruction ends all its subscriptions.
///
/// Callbacks run on the event loop's thread and may call anything of the bus, the destruction of this object
/// included.
class subscriber : public named_client {
  public:
    class backend;

    /// Called with the topic as soon as a message has been received. May be empty.
    using notify_callback = std::function<void(const std::string& topic)>;
    /// Called with topic and data when the message's turn comes.
    using handle_callback = std::function<void(const std::string& topic, const std::string& data)>;

    subscriber() = default;
    ~subscriber();

    /// Subscribes to `topic` and to every topic that goes on after it with a "."; the empty topic is all
    /// topics. Subscribing again to the same topic replaces the callbacks. Throws std::logic_error without an
    /// installed backend.
    void subscribe(const std::string& topic, notify_callback&& notify, handle_callback&& handle);

    /// The same with data that is decoded from JSON first. What cannot be decoded is logged and dropped.
    template <typename T>
    void subscribe(const std::string& topic, notify_callback&& notify,
                   std::function<void(const std::string& topic, T decoded)>&& handle) {
        subscribe(topic, std::move(notify),
                  [handle = std::move(handle)](const std::string& received, const std::string& data) {
                      T decoded{};
                      sedes::v1::deserialize_from_json_string(data, &decoded);
                      handle(received, std::move(decoded));
                  });
    }

    /// Ends all subscriptions of this object; messages that were received but not yet handled are dropped.
    /// Does nothing without an installed backend.
    void revoke_subscriptions();
};

/// What receives the messages of every subscriber of the process.
class subscriber::backend {
  public:
    backend() = default;
    backend(const backend&) = delete;
    backend& operator=(const backend&) = delete;
    virtual ~backend();

    /// Drops all subscriptions of `s` and what is queued for them. An unknown `s` is no error.
    virtual void revoke_subscriptions(subscriber* s) = 0;

    /// Adds or replaces the subscription of `s` to `topic`.
    virtual void subscribe(subscriber* s, const std::string& topic, notify_callback&& notify,
                           handle_callback&& handle) = 0;

    /// The installed backend; empty before the first connection and after `release_backends`.
    static std::shared_ptr<backend> instance;
};

}  // namespace tolvan::vesk::v1

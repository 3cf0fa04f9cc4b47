#pragma once

#include <memory>
#include <string>

namespace tolvan::vesk::v1 {

/// Sends messages to whoever has subscribed to their topic.
class publisher {
  public:
    class backend;

    publisher() = default;
    publisher(const publisher&) = delete;
    publisher& operator=(const publisher&) = delete;

    /// Sends one message, on the event loop's thread. Of the topic, everything up to and including the first
    /// ":" appears nowhere, neither on the wire nor in the log; a topic that begins with "cts/" keeps the
    /// data out of the log line of the publication. Neither text may contain a NUL byte. Whether it arrives
    /// is not told: a message that cannot be sent is logged and dropped. Throws std::logic_error without an
    /// installed backend.
    void publish(const std::string& topic, const std::string& data);
};

/// What carries the messages of every publisher of the process.
class publisher::backend {
  public:
    backend() = default;
    backend(const backend&) = delete;
    backend& operator=(const backend&) = delete;
    virtual ~backend();

    /// Sends one message for `client`; reports failures in the log only.
    virtual void publish(publisher* client, const std::string& topic, const std::string& data) = 0;

    /// The installed backend; empty before the first connection and after `release_backends`.
    static std::shared_ptr<backend> instance;
};

}  // namespace tolvan::vesk::v1

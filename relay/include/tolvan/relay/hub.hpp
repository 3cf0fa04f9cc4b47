#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace tolvan::relay {

/// A hub: takes messages from publishers at one endpoint and relays them, all frames unchanged, to the
/// subscribers at another. It works from construction to `stop` on a thread of its own, in which all signals
/// are blocked, and calls nobody back. Every member is to be called on the thread that made the hub.
class hub {
  public:
    /// Largest frame in bytes that a peer may send. A larger one costs that peer its connection, which it
    /// makes again by itself; the message is lost.
    static constexpr std::int64_t largest_message = 16 * 1024 * 1024;

    /// Where to bind. An endpoint is `tcp://HOST:PORT`, port `*` for any free one, or `ipc://PATH`.
    struct options {
        std::string pub_endpoint;   ///< where publishers (XPUB sockets) connect
        std::string sub_endpoint;   ///< where subscribers (SUB sockets) connect
        bool allow_remote = false;  ///< also take tcp beyond loopback and abstract ipc (`ipc://@NAME`)
    };

    /// What was relayed so far. Bytes are those of the frames' contents.
    struct counters {
        std::uint64_t messages_in = 0;   ///< received from publishers
        std::uint64_t bytes_in = 0;      ///< received from publishers
        std::uint64_t messages_out = 0;  ///< passed on to the subscription side, once whoever takes it
        std::uint64_t bytes_out = 0;     ///< passed on to the subscription side
    };

    /// Binds both endpoints and starts to relay; does not wait for peers. The folder of an ipc endpoint is
    /// made (mode 0700) when it is missing, and refused when anybody but its owner can enter it.
    /// Throws `std::runtime_error` naming the endpoint and the reason; nothing stays bound or locked then.
    explicit hub(const options& wanted);

    /// As `stop`.
    ~hub();

    hub(const hub&) = delete;
    hub& operator=(const hub&) = delete;

    /// The endpoint bound for publishers, with the port in place of `*`; keeps its value after `stop`.
    const std::string& pub_endpoint() const noexcept { return bound_pub_endpoint; }

    /// The endpoint bound for subscribers, with the port in place of `*`; keeps its value after `stop`.
    const std::string& sub_endpoint() const noexcept { return bound_sub_endpoint; }

    /// Asks the relaying thread and waits for its answer.
    /// Throws `std::runtime_error` when the hub has stopped.
    counters read_counters();

    /// Ends relaying, closes both sockets and removes those of ipc endpoints; afterwards the endpoints are
    /// free to be bound again. Subscribers that do not take what waits for them delay it by 0.2 s at most,
    /// then the rest is dropped. Does nothing the second time.
    void stop() noexcept;

  private:
    class engine;

    std::unique_ptr<engine> running;
    std::string bound_pub_endpoint;
    std::string bound_sub_endpoint;
};

}  // namespace tolvan::relay

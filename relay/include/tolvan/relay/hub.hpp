#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace tolvan::relay {

/// A hub: takes messages from publishers at one endpoint and relays them, all frames unchanged, to the
/// subscribers at another. It works from construction to `stop` on a thread of its own, in which all signals
/// are blocked, and calls nobody back. Every member is to be called on the thread that made the hub.
class hub {
  public:
    /// Largest frame in bytes that a peer may send. A larger one costs that peer its connection, which it
    /// makes again by itself; the message is lost.
    static constexpr std::int64_t largest_message = 16 * 1024 * 1024;

    /// What the hub keeps for one subscriber by default, in bytes.
    static constexpr std::int64_t default_queue_bytes = 64 * 1024 * 1024;

    /// The most that it can be told to keep, in bytes. The least is `largest_message`.
    static constexpr std::int64_t most_queue_bytes = std::int64_t{1} << 38;

    /// Where to bind, and how much to keep. An endpoint is `tcp://HOST:PORT`, port `*` for any free one, or
    /// `ipc://PATH`.
    struct options {
        std::string pub_endpoint;          ///< where publishers (XPUB sockets) connect
        std::string sub_endpoint;          ///< where subscribers (SUB sockets) connect
        bool allow_remote = false;         ///< also take tcp beyond loopback and abstract ipc (`ipc://@NAME`)
        std::optional<gid_t> ipc_group{};  ///< whose members may connect to ipc endpoints as the owner may
        /// Memory that messages for a subscriber that does not keep up may take.
        /// Beyond it messages for that subscriber are dropped; with large ones its connection is cut.
        std::int64_t queue_bytes = default_queue_bytes;
    };

    /// What was relayed so far, and what is there now. Bytes are those of the frames' contents.
    struct counters {
        std::uint64_t messages_in = 0;   ///< received from publishers
        std::uint64_t bytes_in = 0;      ///< received from publishers
        std::uint64_t messages_out = 0;  ///< passed on to the subscription side, once whoever takes it
        std::uint64_t bytes_out = 0;     ///< passed on to the subscription side
        std::uint64_t jams = 0;          ///< times that the hub began to drop messages for a subscriber
        std::uint64_t publishers = 0;    ///< connections at the publishing endpoint now
        std::uint64_t subscribers = 0;   ///< connections at the subscription endpoint now
        std::uint64_t turns = 0;         ///< of the relaying loop: one a second at least while it works
    };

    /// Something that befell a connection.
    struct report {
        enum class event {
            connected,
            refused,       ///< its handshake failed: not a publisher, or not a subscriber
            disconnected,  ///< for any other reason
            fell_silent,   ///< dropped, with what waited for it: no sign of life for a minute
            jammed,        ///< it does not keep up: messages for it are dropped from now on
            cut            ///< it does not keep up: its connection was ended, and what waited for it dropped
        };
        event what;
        bool publisher;    ///< at the publishing endpoint, or else at the subscription endpoint
        std::string peer;  ///< "process 4711 (display)" over ipc, "127.0.0.1:50212" over tcp; of a jam whose
                           ///< cause cannot be told empty
    };

    /// Binds both endpoints and starts to relay; does not wait for peers. The folder of an ipc endpoint is
    /// made (mode 0700) when it is missing, and refused when anybody but its owner can enter it. With a group
    /// it belongs to that group and has mode 0750, and the socket has 0660.
    /// Throws `std::runtime_error` naming the endpoint or option and the reason; nothing stays bound or
    /// locked then.
    explicit hub(const options& wanted);

    /// As `stop`.
    ~hub();

    hub(const hub&) = delete;
    hub& operator=(const hub&) = delete;

    /// The endpoint bound for publishers, with the port in place of `*`; keeps its value after `stop`.
    const std::string& pub_endpoint() const noexcept { return bound_pub_endpoint; }

    /// The endpoint bound for subscribers, with the port in place of `*`; keeps its value after `stop`.
    const std::string& sub_endpoint() const noexcept { return bound_sub_endpoint; }

    /// Does not wait. Throws `std::runtime_error` when the hub has stopped.
    counters read_counters() const;

    /// A descriptor of the hub's that is readable while reports wait. To be polled only.
    /// Throws `std::runtime_error` when the hub has stopped.
    int report_descriptor() const;

    /// The reports that wait, the oldest first; does not wait. When nobody takes them the hub keeps the last
    /// thousand. Throws `std::runtime_error` when the hub has stopped.
    std::vector<report> take_reports();

    /// Ends relaying, closes both sockets and removes those of ipc endpoints; afterwards the endpoints are
    /// free to be bound again. Subscribers that do not take what waits for them delay it by 0.2 s at most,
    /// then the rest is dropped. Does nothing the second time.
    void stop() noexcept;

  private:
    class engine;

    static std::unique_ptr<engine> started(const options& wanted);
    engine& alive() const;

    std::unique_ptr<engine> running;
    std::string bound_pub_endpoint;
    std::string bound_sub_endpoint;
};

}  // namespace tolvan::relay

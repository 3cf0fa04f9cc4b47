#include "tolvan/relay/hub.hpp"

#include <array>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <thread>

#include <pthread.h>
#include <zmq.h>

#include "endpoint_policy.hpp"
#include "ipc_claim.hpp"
#include "zmq_handles.hpp"

namespace tolvan::relay {
namespace {

constexpr const char* publishing_role = "hub publishing endpoint";
constexpr const char* subscription_role = "hub subscription endpoint";
constexpr const char* control_endpoint = "inproc://control";

// In messages, for each peer. A burst is kept this far; a subscriber that never reads costs no more.
constexpr int queue_limit = 1'000'000;

// A subscriber that has stopped reading answers no heartbeats once its queue is full, and when it is taken
// for dead what the hub keeps for it is dropped: the time-out is long enough for a stalled application.
constexpr int heartbeat_interval_ms = 10'000;
constexpr int heartbeat_timeout_ms = 60'000;

// How long unsent messages hold up the end while a subscriber does not read. Not 0: a session that is cut off
// in the middle of a message trips an assertion inside libzmq 4.3.4 when its peer disconnects at that moment,
// and at the end of a system everybody leaves together. While it lingers it takes that peer's leave calmly.
constexpr int subscriber_linger_ms = 200;

// One of the two endpoints on its way to being bound.
struct wanted_endpoint {
    const char* role;
    const std::string& endpoint;
    bind_address address{};
};

// Runs one step of binding and names the endpoint in the text of its failure.
template <typename Step>
void while_binding(const wanted_endpoint& wanted, Step step) {
    try {
        step();
    } catch (const std::runtime_error& failure) {
        throw std::runtime_error(std::string("could not bind ") + wanted.role + " " + wanted.endpoint + ": " +
                                 failure.what());
    }
}

void judge(wanted_endpoint& wanted, bool allow_remote) {
    while_binding(wanted, [&] { wanted.address = judge_endpoint(wanted.endpoint, allow_remote); });
}

void bind(const wanted_endpoint& wanted, zmq_socket& socket, std::optional<ipc_claim>& claim) {
    while_binding(wanted, [&] {
        if (!wanted.address.ipc_path.empty()) claim.emplace(wanted.address.ipc_path);
        if (wanted.address.ipv6) socket.set(ZMQ_IPV6, 1);
        socket.bind(wanted.address.text);
    });
}

// Blocks all signals of the calling thread, and so of the threads that it starts meanwhile.
class blocked_signals {
  public:
    blocked_signals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    blocked_signals(const blocked_signals&) = delete;
    blocked_signals& operator=(const blocked_signals&) = delete;
    ~blocked_signals() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

  private:
    sigset_t before{};
};

void configure(zmq_socket& socket) {
    socket.set(ZMQ_SNDHWM, queue_limit);
    socket.set(ZMQ_RCVHWM, queue_limit);
    socket.set(ZMQ_MAXMSGSIZE, hub::largest_message);
    socket.set(ZMQ_HEARTBEAT_IVL, heartbeat_interval_ms);
    socket.set(ZMQ_HEARTBEAT_TIMEOUT, heartbeat_timeout_ms);
}

}  // namespace

/// What exists while the hub works. Members go in reverse order: the sockets, then the context, which waits
/// until they are really closed, and only then the claims to their paths.
class hub::engine {
  public:
    explicit engine(const options& wanted);
    ~engine();

    counters read_counters();
    std::string pub_endpoint() const { return from_publishers.last_endpoint(); }
    std::string sub_endpoint() const { return to_subscribers.last_endpoint(); }

  private:
    void bind_both(const options& wanted);
    void relay_until_told() noexcept;

    std::optional<ipc_claim> publishing_claim;
    std::optional<ipc_claim> subscription_claim;
    zmq_context context;
    zmq_socket from_publishers{context, ZMQ_SUB};
    zmq_socket to_subscribers{context, ZMQ_PUB};
    zmq_socket owner_control{context, ZMQ_PAIR};
    zmq_socket proxy_control{context, ZMQ_PAIR};
    std::thread relaying;
};

hub::engine::engine(const options& wanted) {
    configure(from_publishers);
    configure(to_subscribers);
    to_subscribers.set(ZMQ_LINGER, subscriber_linger_ms);
    from_publishers.subscribe_to_everything();
    bind_both(wanted);
    owner_control.bind(control_endpoint);
    proxy_control.connect(control_endpoint);
    const blocked_signals in_the_new_thread;
    relaying = std::thread(&engine::relay_until_told, this);
}

// Both are judged before either is bound: a refusal leaves no folder behind.
void hub::engine::bind_both(const options& wanted) {
    wanted_endpoint publishing{publishing_role, wanted.pub_endpoint};
    wanted_endpoint subscription{subscription_role, wanted.sub_endpoint};
    judge(publishing, wanted.allow_remote);
    judge(subscription, wanted.allow_remote);
    bind(publishing, from_publishers, publishing_claim);
    bind(subscription, to_subscribers, subscription_claim);
}

// The proxy is told to end, and not cut off by ending the context: that could leave a message half sent.
hub::engine::~engine() {
    try {
        owner_control.send("TERMINATE");
    } catch (const std::runtime_error&) {
        // The proxy has ended by itself and taken the context along.
    }
    relaying.join();
}

// Shutting the context down at the end wakes an owner that waits for counters which will never come.
void hub::engine::relay_until_told() noexcept {
    uninterrupted([this] {
        return zmq_proxy_steerable(from_publishers.get(), to_subscribers.get(), nullptr, proxy_control.get());
    });
    context.shut_down();
}

hub::counters hub::engine::read_counters() {
    owner_control.send("STATISTICS");
    // Of the publishing side, then of the subscription side: messages and bytes in, messages and bytes out.
    std::array<std::uint64_t, 8> numbers{};
    for (auto& number : numbers) number = owner_control.receive_number();
    return {numbers[0], numbers[1], numbers[6], numbers[7]};
}

hub::hub(const options& wanted)
    : running(std::make_unique<engine>(wanted)),
      bound_pub_endpoint(running->pub_endpoint()),
      bound_sub_endpoint(running->sub_endpoint()) {}

hub::~hub() = default;

hub::counters hub::read_counters() {
    if (running == nullptr) throw std::runtime_error("the hub has stopped");
    return running->read_counters();
}

void hub::stop() noexcept {
    running.reset();
}

}  // namespace tolvan::relay

#include "tolvan/relay/hub.hpp"

#include <csignal>
#include <optional>
#include <stdexcept>
#include <thread>

#include <pthread.h>
#include <zmq.hpp>

#include "connections.hpp"
#include "endpoint_policy.hpp"
#include "event_descriptor.hpp"
#include "forwarder.hpp"
#include "ipc_claim.hpp"
#include "kept_bytes.hpp"
#include "limits.hpp"

namespace tolvan::relay {
namespace {

constexpr const char* publishing_role = "hub publishing endpoint";
constexpr const char* subscription_role = "hub subscription endpoint";

// Off: with it, every frame of a length that libzmq does not keep inside the message object would hold on to
// the whole buffer that it was received in, with everything else that came at the time. A draft option, which
// the packaged library takes, and whose name its header keeps back.
constexpr int zero_copy_receive = 10;

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

void check_different(const wanted_endpoint& publishing, const wanted_endpoint& subscription) {
    while_binding(subscription, [&] {
        if (is_same_ipc(publishing.address, subscription.address))
            throw std::runtime_error("it is the publishing endpoint too");
    });
}

// libzmq's reason reaches the text as any other.
void bind(const wanted_endpoint& wanted, ipc_group group, zmq::socket_t& socket,
          std::optional<ipc_claim>& claim) {
    while_binding(wanted, [&] {
        if (!wanted.address.ipc_path.empty()) claim.emplace(wanted.address.ipc_path, group);
        if (wanted.address.ipv6) socket.set(zmq::sockopt::ipv6, true);
        if (zmq_bind(socket.handle(), wanted.address.text.c_str()) == -1)
            throw std::runtime_error(zmq_strerror(errno));
        if (claim) claim->admit();
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

constexpr int in_milliseconds(std::chrono::milliseconds duration) {
    return static_cast<int>(duration.count());
}

zmq::context_t make_context() {
    zmq::context_t context;
    if (zmq_ctx_set(context.handle(), zero_copy_receive, 0) == -1) throw zmq::error_t();
    return context;
}

zmq::socket_t make_socket(zmq::context_t& context, zmq::socket_type type) {
    zmq::socket_t socket(context, type);
    socket.set(zmq::sockopt::maxmsgsize, hub::largest_message);
    socket.set(zmq::sockopt::heartbeat_ivl, in_milliseconds(heartbeat_interval));
    socket.set(zmq::sockopt::heartbeat_timeout, in_milliseconds(heartbeat_timeout));
    return socket;
}

zmq::socket_t publishing_socket(zmq::context_t& context) {
    zmq::socket_t socket = make_socket(context, zmq::socket_type::sub);
    socket.set(zmq::sockopt::rcvhwm, receive_mark);
    socket.set(zmq::sockopt::linger, 0);
    socket.set(zmq::sockopt::subscribe, "");
    return socket;
}

zmq::socket_t subscription_socket(zmq::context_t& context, std::int64_t queue_bytes) {
    zmq::socket_t socket = make_socket(context, zmq::socket_type::xpub);
    socket.set(zmq::sockopt::sndhwm, send_mark(queue_bytes));
    socket.set(zmq::sockopt::rcvhwm, receive_mark);
    socket.set(zmq::sockopt::xpub_nodrop, true);
    socket.set(zmq::sockopt::linger, in_milliseconds(subscriber_linger));
    return socket;
}

// A message of the largest size has to fit, and libzmq counts messages in an `int`.
std::int64_t judge_queue_bytes(std::int64_t bytes) {
    if (bytes >= hub::largest_message && bytes <= hub::most_queue_bytes) return bytes;
    throw std::runtime_error("a queue of " + std::to_string(bytes) + " bytes: must be " +
                             std::to_string(hub::largest_message) + " to " +
                             std::to_string(hub::most_queue_bytes));
}

}  // namespace

/// What exists while the hub works. Members go in reverse order: the sockets, then the context, which waits
/// until they are really closed, and only then what it counts with, and the claims to their paths.
class hub::engine {
  public:
    explicit engine(const options& wanted);
    ~engine();

    counters read_counters() const;
    report_queue& waiting_reports() { return reports; }
    std::string pub_endpoint() const { return from_publishers.get(zmq::sockopt::last_endpoint); }
    std::string sub_endpoint() const { return to_subscribers.get(zmq::sockopt::last_endpoint); }

  private:
    void bind_both(const options& wanted);
    void relay_until_told();

    const std::int64_t queue_bytes;
    std::optional<ipc_claim> publishing_claim;
    std::optional<ipc_claim> subscription_claim;
    kept_bytes kept;
    live_counters counted;
    report_queue reports;
    event_descriptor end;
    zmq::context_t context = make_context();
    zmq::socket_t from_publishers = publishing_socket(context);
    zmq::socket_t to_subscribers = subscription_socket(context, queue_bytes);
    connections publishers{context, from_publishers, true, reports};
    connections subscribers{context, to_subscribers, false, reports};
    std::thread relaying;
};

hub::engine::engine(const options& wanted) : queue_bytes(judge_queue_bytes(wanted.queue_bytes)) {
    bind_both(wanted);
    const blocked_signals in_the_new_thread;
    relaying = std::thread(&engine::relay_until_told, this);
}

// Both are judged before either is bound: a refusal leaves no folder behind.
void hub::engine::bind_both(const options& wanted) {
    wanted_endpoint publishing{publishing_role, wanted.pub_endpoint};
    wanted_endpoint subscription{subscription_role, wanted.sub_endpoint};
    judge(publishing, wanted.allow_remote);
    judge(subscription, wanted.allow_remote);
    check_different(publishing, subscription);
    bind(publishing, wanted.ipc_group, from_publishers, publishing_claim);
    bind(subscription, wanted.ipc_group, to_subscribers, subscription_claim);
}

// The loop is told to end, and not cut off by ending the context: that could leave a message half sent.
hub::engine::~engine() {
    end.raise();
    relaying.join();
}

void hub::engine::relay_until_told() {
    forwarder(
        {from_publishers, to_subscribers, publishers, subscribers, kept, counted, queue_bytes, end.get()})
        .run();
}

hub::counters hub::engine::read_counters() const {
    const auto value = [](const auto& counter) { return counter.load(std::memory_order_relaxed); };
    return {value(counted.messages_in), value(counted.bytes_in), value(counted.messages_out),
            value(counted.bytes_out),   value(counted.jams),     value(counted.publishers),
            value(counted.subscribers), value(counted.turns)};
}

std::unique_ptr<hub::engine> hub::started(const options& wanted) {
    try {
        return std::make_unique<engine>(wanted);
    } catch (const zmq::error_t& failure) {
        throw std::runtime_error(std::string("could not make the hub's sockets: ") + failure.what());
    }
}

hub::hub(const options& wanted)
    : running(started(wanted)),
      bound_pub_endpoint(running->pub_endpoint()),
      bound_sub_endpoint(running->sub_endpoint()) {}

hub::~hub() = default;

hub::engine& hub::alive() const {
    if (running == nullptr) throw std::runtime_error("the hub has stopped");
    return *running;
}

hub::counters hub::read_counters() const {
    return alive().read_counters();
}

int hub::report_descriptor() const {
    return alive().waiting_reports().descriptor();
}

std::vector<hub::report> hub::take_reports() {
    return alive().waiting_reports().take();
}

void hub::stop() noexcept {
    running.reset();
}

}  // namespace tolvan::relay

#include <chrono>
#include <cstring>
#include <stdexcept>

#include <tolvan/lumo/v1/log.hpp>
#include <tolvan/vesk/hub/hub_message.hpp>
#include <tolvan/vesk/hub/publisher_impl.hpp>

namespace tolvan::vesk::hub {

namespace {

constexpr const char* source_file = "src/hub/publisher_impl";
constexpr const char* censored_prefix = "cts/";

// What comes before the first ":" decides about censoring, and appears nowhere.
const char* wire_topic_of(const std::string& topic) {
    const char* const colon = std::strchr(topic.c_str(), ':');
    return colon == nullptr ? topic.c_str() : colon + 1;
}

std::int64_t steady_milliseconds() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace

publisher_impl::publisher_impl(const std::string& endpoint, bool block_on_first_publish)
    : pub_socket(ZMQ_XPUB), first_pub_done(!block_on_first_publish) {
    LUMO_LOG(lumo::v1::trace, source_file, "publisher_impl", "connecting to {}", endpoint);
    const int rc = zsock_connect(pub_socket.get(), "%s", endpoint.c_str());
    if (rc != 0)
        throw std::runtime_error("could not connect to ZMQ publishing socket at " + endpoint + ", reason " +
                                 std::to_string(rc));
}

void publisher_impl::publish(v1::publisher* /*client*/, const std::string& topic, const std::string& data) {
    if (!first_pub_done) await_first_subscription();
    const char* const wire_topic = wire_topic_of(topic);
    send(wire_topic, data.c_str());
    if (topic.starts_with(censored_prefix))
        LUMO_LOG(lumo::v1::trace, source_file, "publish", "publish topic: '{}' data: censored", wire_topic);
    else
        LUMO_LOG(lumo::v1::trace, source_file, "publish", "publish topic: '{}' data: {}", wire_topic,
                 data.c_str());
}

// Without a subscription ZeroMQ drops whatever is sent. Waits once, whatever the receive gives.
void publisher_impl::await_first_subscription() {
    LUMO_LOG(lumo::v1::trace, source_file, "publish", "Sending first PUB message, doing a blocking receive");
    const message_ptr subscription(zmsg_recv(pub_socket.get()));
    first_pub_done = true;
}

void publisher_impl::send(const char* wire_topic, const char* data) {
    const metadata_t metadata{.timestamp_ms = steady_milliseconds()};
    message_ptr message(zmsg_new());
    zmsg_addstr(message.get(), wire_topic);
    zmsg_addstr(message.get(), data);
    zmsg_addmem(message.get(), &metadata, sizeof metadata);

    zmsg_t* sent = message.release();
    const int rc = zmsg_send(&sent, pub_socket.get());
    message.reset(sent);  // a message that could not be sent is still ours
    if (rc != 0) LUMO_LOG(lumo::v1::error, source_file, "publish", "zmsg_send() failed: {}", rc);
}

}  // namespace tolvan::vesk::hub

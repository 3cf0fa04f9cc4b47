// The calls that the library makes, and nothing else.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include <czmq.h>
#include <poll.h>

#include "peer.hpp"

namespace tolvan::bench {

namespace {

struct destroy {
    void operator()(zsock_t* socket) const { zsock_destroy(&socket); }
    void operator()(zmsg_t* message) const { zmsg_destroy(&message); }
    void operator()(char* text) const { std::free(text); }
};
using socket_ptr = std::unique_ptr<zsock_t, destroy>;
using message_ptr = std::unique_ptr<zmsg_t, destroy>;

std::string pop(const message_ptr& message) {
    return std::unique_ptr<char, destroy>(zmsg_popstr(message.get())).get();
}

class czmq_peer final : public peer {
  public:
    czmq_peer(int type, const std::string& endpoint) : socket(zsock_new(type)) {
        if (type == ZMQ_SUB) zsock_set_subscribe(socket.get(), topic_root);
        if (zsock_connect(socket.get(), "%s", endpoint.c_str()) != 0) throw std::runtime_error(endpoint);
    }

    void publish(const std::string& topic, const std::string& data) override {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        const std::int64_t metadata[] = {1, now / std::chrono::milliseconds(1)};
        zmsg_t* message = zmsg_new();
        zmsg_addstr(message, topic.c_str());
        zmsg_addstr(message, data.c_str());
        zmsg_addmem(message, metadata, sizeof metadata);
        zmsg_send(&message, socket.get());
    }

    void receive(const std::function<bool(std::string_view)>& received) override {
        pollfd waiting = {static_cast<int>(zsock_fd(socket.get())), POLLIN, 0};
        for (;; ::poll(&waiting, 1, -1))
            while ((zsock_events(socket.get()) & ZMQ_POLLIN) != 0)
                if (!received(receive_one())) return;
    }

  private:
    std::string receive_one() {
        const message_ptr message(zmsg_recv(socket.get()));
        std::string topic = pop(message);
        const std::string data = pop(message), metadata = pop(message);
        return topic;
    }

    socket_ptr socket;
};

}  // namespace

std::unique_ptr<peer> make_czmq_peer(const std::string& pub, const std::string& sub, bool receives) {
    return receives ? std::make_unique<czmq_peer>(ZMQ_SUB, sub) : std::make_unique<czmq_peer>(ZMQ_XPUB, pub);
}

}  // namespace tolvan::bench

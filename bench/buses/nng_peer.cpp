#include <cstring>
#include <stdexcept>

#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>

#include "peer.hpp"

namespace tolvan::bench {

namespace {

constexpr int queue = 8192;  // the most that nng takes

void check(int result) {
    if (result != 0) throw std::runtime_error(nng_strerror(result));
}

// A message is the topic, a NUL and the data.
class nng_peer final : public peer {
  public:
    nng_peer(const std::string& endpoint, bool receives) {
        check(receives ? nng_sub0_open(&socket) : nng_pub0_open(&socket));
        check(nng_socket_set_int(socket, receives ? NNG_OPT_RECVBUF : NNG_OPT_SENDBUF, queue));
        if (receives)
            check(nng_socket_set(socket, NNG_OPT_SUB_SUBSCRIBE, topic_root, std::strlen(topic_root)));
        check(nng_dial(socket, endpoint.c_str(), nullptr, 0));
    }
    ~nng_peer() override { nng_close(socket); }

    void publish(const std::string& topic, const std::string& data) override {
        std::string message = topic + '\0' + data;
        check(nng_send(socket, message.data(), message.size(), 0));
    }

    void receive(const std::function<bool(std::string_view)>& received) override {
        for (bool more = true; more;) {
            char* bytes = nullptr;
            std::size_t size = 0;
            check(nng_recv(socket, &bytes, &size, NNG_FLAG_ALLOC));
            const std::string topic = bytes, data(bytes + topic.size() + 1, size - topic.size() - 1);
            nng_free(bytes, size);
            more = received(topic);
        }
    }

  private:
    nng_socket socket{};
};

}  // namespace

std::unique_ptr<peer> make_nng_peer(const std::string& pub, const std::string& sub, bool receives) {
    return std::make_unique<nng_peer>(receives ? sub : pub, receives);
}

int forward_nng(const std::string& pub, const std::string& sub) {
    nng_socket from{}, to{};
    check(nng_sub0_open_raw(&from));
    check(nng_pub0_open_raw(&to));
    check(nng_socket_set_int(from, NNG_OPT_RECVBUF, queue));
    check(nng_socket_set_int(to, NNG_OPT_SENDBUF, queue));
    check(nng_listen(from, pub.c_str(), nullptr, 0));
    check(nng_listen(to, sub.c_str(), nullptr, 0));
    return nng_device(from, to);
}

}  // namespace tolvan::bench

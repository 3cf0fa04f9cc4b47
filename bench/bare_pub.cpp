// What "vesk pub TOPIC DATA" cannot do without, in bare czmq: publishes a message until it is back from the
// hub, and ends.
//   bare_pub PUB_ENDPOINT SUB_ENDPOINT
#include <memory>

#include <czmq.h>

namespace {

struct destroy {
    void operator()(zsock_t* socket) const { zsock_destroy(&socket); }
    void operator()(zmsg_t* message) const { zmsg_destroy(&message); }
};

constexpr const char* topic = "bare.pub";
constexpr int milliseconds_between_trials = 1;

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const std::unique_ptr<zsock_t, destroy> pub(zsock_new(ZMQ_XPUB));
    const std::unique_ptr<zsock_t, destroy> sub(zsock_new(ZMQ_SUB));
    zsock_set_subscribe(sub.get(), topic);
    zsock_set_rcvtimeo(sub.get(), milliseconds_between_trials);
    if (zsock_connect(sub.get(), "%s", argv[2]) != 0 || zsock_connect(pub.get(), "%s", argv[1]) != 0)
        return 1;
    while (true) {
        zstr_sendx(pub.get(), topic, "data", NULL);
        if (const std::unique_ptr<zmsg_t, destroy> back{zmsg_recv(sub.get())}) return 0;
    }
}

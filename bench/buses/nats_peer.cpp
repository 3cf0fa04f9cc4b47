#include <stdexcept>

#include <nats/nats.h>

#include "peer.hpp"

namespace tolvan::bench {

namespace {

void check(natsStatus status) {
    if (status != NATS_OK) throw std::runtime_error(natsStatus_GetText(status));
}

class nats_peer final : public peer {
  public:
    nats_peer(const std::string& url, bool receives) {
        check(natsConnection_ConnectTo(&connection, url.c_str()));
        if (!receives) return;
        check(natsConnection_SubscribeSync(&subscription, connection,
                                           (std::string(topic_root) + ".>").c_str()));
        check(natsSubscription_SetPendingLimits(subscription, -1, -1));
    }
    ~nats_peer() override {
        natsSubscription_Destroy(subscription);
        natsConnection_Destroy(connection);
    }

    void publish(const std::string& topic, const std::string& data) override {
        check(natsConnection_Publish(connection, topic.c_str(), data.data(), static_cast<int>(data.size())));
    }

    void receive(const std::function<bool(std::string_view)>& received) override {
        for (bool more = true; more;) {
            natsMsg* message = nullptr;
            check(natsSubscription_NextMsg(&message, subscription, longest_wait_ms));
            const std::string topic = natsMsg_GetSubject(message), data = natsMsg_GetData(message);
            natsMsg_Destroy(message);
            more = received(topic);
        }
    }

  private:
    static constexpr std::int64_t longest_wait_ms = 60'000;

    natsConnection* connection = nullptr;
    natsSubscription* subscription = nullptr;
};

}  // namespace

std::unique_ptr<peer> make_nats_peer(const std::string& pub, const std::string&, bool receives) {
    return std::make_unique<nats_peer>(pub, receives);
}

}  // namespace tolvan::bench

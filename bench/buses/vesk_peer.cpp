#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/v1/connection.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

#include "peer.hpp"

namespace tolvan::bench {

namespace {

class vesk_peer final : public peer {
  public:
    vesk_peer(const std::string& pub, const std::string& sub)
        : bus({.pub_endpoint = pub, .sub_endpoint = sub}, loop) {}
    ~vesk_peer() override { vesk::v1::release_backends(); }

    void publish(const std::string& topic, const std::string& data) override {
        publisher.publish(topic, data);
    }

    void receive(const std::function<bool(std::string_view)>& received) override {
        subscriber.subscribe(
            topic_root,
            [this, received](const std::string& topic) {
                if (!received(topic)) loop->stop();
            },
            nullptr);
        loop->run();
    }

  private:
    const std::shared_ptr<asio_event_loop> loop = std::make_shared<asio_event_loop>();
    const vesk::v1::connection bus;
    vesk::v1::publisher publisher;
    vesk::v1::subscriber subscriber;
};

}  // namespace

std::unique_ptr<peer> make_vesk_peer(const std::string& pub, const std::string& sub, bool) {
    return std::make_unique<vesk_peer>(pub, sub);
}

}  // namespace tolvan::bench

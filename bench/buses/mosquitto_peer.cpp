#include <stdexcept>

#include <mosquitto.h>

#include "peer.hpp"

namespace tolvan::bench {

namespace {

constexpr int keepalive_seconds = 60;
constexpr int at_most_once = 0;

void check(int result) {
    if (result != MOSQ_ERR_SUCCESS) throw std::runtime_error(mosquitto_strerror(result));
}

class mosquitto_peer final : public peer {
  public:
    mosquitto_peer(const std::string& port, bool receives) : client(mosquitto_new(nullptr, true, this)) {
        check(mosquitto_connect(client, "127.0.0.1", std::stoi(port), keepalive_seconds));
        if (receives)
            check(
                mosquitto_subscribe(client, nullptr, (std::string(topic_root) + "/#").c_str(), at_most_once));
        else
            check(mosquitto_loop_start(client));
    }
    ~mosquitto_peer() override {
        mosquitto_disconnect(client);
        mosquitto_loop_stop(client, false);
        mosquitto_destroy(client);
    }

    void publish(const std::string& topic, const std::string& data) override {
        std::string path = topic;
        path[path.find('.')] = '/';
        check(mosquitto_publish(client, nullptr, path.c_str(), static_cast<int>(data.size()), data.data(),
                                at_most_once, false));
    }

    void receive(const std::function<bool(std::string_view)>& received) override {
        on_message = received;
        mosquitto_message_callback_set(client, [](mosquitto*, void* self, const mosquitto_message* message) {
            static_cast<mosquitto_peer*>(self)->take(message);
        });
        while (more) check(mosquitto_loop(client, -1, 1));
    }

  private:
    void take(const mosquitto_message* message) {
        std::string topic = message->topic;
        topic[topic.find('/')] = '.';
        const std::string data(static_cast<const char*>(message->payload),
                               static_cast<std::size_t>(message->payloadlen));
        more = more && on_message(topic);
    }

    mosquitto* const client;
    std::function<bool(std::string_view)> on_message;
    bool more = true;
};

}  // namespace

std::unique_ptr<peer> make_mosquitto_peer(const std::string& pub, const std::string&, bool receives) {
    mosquitto_lib_init();
    return std::make_unique<mosquitto_peer>(pub, receives);
}

}  // namespace tolvan::bench

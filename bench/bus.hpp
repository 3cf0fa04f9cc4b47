#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/relay/hub.hpp>
#include <tolvan/vesk/hub/connection_impl.hpp>
#include <tolvan/vesk/hub/hub_message.hpp>
#include <tolvan/vesk/hub/zmq_types.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace tolvan::bench {

/// The bus of this process over a hub, on a real event loop. One at a time.
class bus {
  public:
    explicit bus(const relay::hub& hub) {
        vesk::hub::connection_impl connection;
        connection.set_event_loop(loop);
        connection.initialize({.pub_endpoint = hub.pub_endpoint(), .sub_endpoint = hub.sub_endpoint()});
    }
    bus(const bus&) = delete;
    bus& operator=(const bus&) = delete;
    ~bus() { vesk::v1::release_backends(); }

    /// Runs the loop until a message has come back: then the hub knows every subscription made before.
    void await_hub() {
        vesk::v1::subscriber subscriber;
        event_loop_v1::holder<timer_impl_base> next;
        subscriber.subscribe(
            "probe", [this](const auto&) { loop->stop(); }, nullptr);
        const std::function<void()> probe = [&] {
            vesk::v1::publisher().publish("probe", "");
            next = loop->create_timer("probe", std::chrono::milliseconds(10), {}, probe);
        };
        probe();
        loop->run();
    }

    const std::shared_ptr<asio_event_loop> loop = std::make_shared<asio_event_loop>();
};

/// A SUB and an XPUB socket of czmq alone, connected to a hub.
class bare_peer {
  public:
    bare_peer(const relay::hub& hub, const std::string& subscription) {
        zsock_connect(sub.get(), "%s", hub.sub_endpoint().c_str());
        zsock_set_subscribe(sub.get(), subscription.c_str());
        zsock_connect(pub.get(), "%s", hub.pub_endpoint().c_str());
    }

    /// Sends a message of the three frames.
    void send(const std::string& topic) const {
        const vesk::hub::metadata_t metadata;
        zmsg_t* message = zmsg_new();
        zmsg_addstr(message, topic.c_str());
        zmsg_addstr(message, R"({"n":1})");
        zmsg_addmem(message, &metadata, sizeof metadata);
        zmsg_send(&message, pub.get());
    }

    /// Waits for a message and takes it apart.
    void receive() const {
        const vesk::hub::message_ptr received(zmsg_recv(sub.get()));
        for (int frame = 0; frame < 3; ++frame) const vesk::hub::text_ptr text(zmsg_popstr(received.get()));
    }

    bool can_receive() const { return (zsock_events(sub.get()) & ZMQ_POLLIN) != 0; }

    /// Until the own message is back. Those that were sent in vain may follow it.
    void await_hub(const std::string& topic) const {
        do send(topic);
        while (!readable_within(20));
        while (readable_within(50)) receive();
    }

    /// The descriptor that says when to ask `can_receive`.
    int descriptor() const { return static_cast<int>(zsock_fd(sub.get())); }

  private:
    bool readable_within(long milliseconds) const {
        zmq_pollitem_t item{zsock_resolve(sub.get()), 0, ZMQ_POLLIN, 0};
        return zmq_poll(&item, 1, milliseconds) > 0;
    }

    vesk::hub::socket sub{ZMQ_SUB};
    vesk::hub::socket pub{ZMQ_XPUB};
};

}  // namespace tolvan::bench

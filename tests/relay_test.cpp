#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <zmq.h>

#include "tolvan/relay/hub.hpp"

namespace {

using tolvan::relay::hub;
using frames = std::vector<std::string>;

static_assert(!std::is_move_constructible_v<hub> && !std::is_copy_constructible_v<hub>);

constexpr int patience_ms = 30'000;  // for what must happen; only a failing test waits so long

/// A publisher or a subscriber: a plain socket with a context of its own, as in another process.
class peer {
  public:
    peer(int type, const std::string& endpoint) : context(zmq_ctx_new()), socket(zmq_socket(context, type)) {
        set(ZMQ_LINGER, 0);
        set(ZMQ_SNDHWM, 0);
        EXPECT_EQ(zmq_connect(socket, endpoint.c_str()), 0);
    }
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;
    ~peer() {
        zmq_close(socket);
        zmq_ctx_term(context);
    }

    void set(int option, int value) { zmq_setsockopt(socket, option, &value, sizeof value); }
    void subscribe(const std::string& prefix) {
        zmq_setsockopt(socket, ZMQ_SUBSCRIBE, prefix.data(), prefix.size());
    }

    void send(const frames& message) {
        for (std::size_t i = 0; i < message.size(); ++i) {
            const int more = i + 1 < message.size() ? ZMQ_SNDMORE : 0;
            zmq_send(socket, message[i].data(), message[i].size(), more);
        }
    }

    /// The next message; empty when none comes in time.
    frames receive(int wait_ms = patience_ms) {
        set(ZMQ_RCVTIMEO, wait_ms);
        frames message;
        zmq_msg_t frame;
        zmq_msg_init(&frame);
        do {
            if (zmq_msg_recv(&frame, socket, 0) == -1) break;
            message.emplace_back(static_cast<char*>(zmq_msg_data(&frame)), zmq_msg_size(&frame));
        } while (zmq_msg_more(&frame) != 0);
        zmq_msg_close(&frame);
        return message;
    }

  private:
    void* context;
    void* socket;
};

/// Sends `probe` until the subscriber gets it, then reads the copies: the road between the two is open.
void open_road(peer& publisher, peer& subscriber, const std::string& probe) {
    for (int tries = 0; tries < 3000; ++tries) {
        publisher.send({probe});
        if (subscriber.receive(10) != frames{probe}) continue;
        publisher.send({probe, "last"});
        while (subscriber.receive() == frames{probe}) {
        }
        return;
    }
    FAIL() << "nothing came through the hub";
}

std::string refusal_of(const hub::options& options) {
    try {
        hub refused(options);
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
    return "accepted";
}

class relay_hub : public testing::Test {
  protected:
    relay_hub() {
        char name[] = "/tmp/relay_test.XXXXXX";
        folder = mkdtemp(name);
    }
    ~relay_hub() override { std::filesystem::remove_all(folder); }

    std::string ipc(const std::string& name) const { return "ipc://" + folder + "/" + name; }
    hub::options ipc_options() const { return {ipc("pub"), ipc("sub")}; }
    std::size_t files() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
    }

    const hub::options loopback{"tcp://127.0.0.1:*", "tcp://127.0.0.1:*"};
    std::string folder;
};

TEST_F(relay_hub, relays_frames_byte_for_byte_to_those_whose_prefix_matches_and_counts_them) {
    hub relay(loopback);
    peer publisher(ZMQ_XPUB, relay.pub_endpoint());
    EXPECT_EQ(publisher.receive(), frames{"\1"}) << "a new publisher must be told that everything is wanted";
    peer subscriber_of_a(ZMQ_SUB, relay.sub_endpoint());
    peer subscriber_of_b(ZMQ_SUB, relay.sub_endpoint());
    for (peer* each : {&subscriber_of_a, &subscriber_of_b}) each->subscribe("probe");
    subscriber_of_a.subscribe("a.b");
    subscriber_of_b.subscribe("b");
    open_road(publisher, subscriber_of_a, "probe.a");
    open_road(publisher, subscriber_of_b, "probe.b");
    while (subscriber_of_a.receive() != frames{"probe.b", "last"}) {
    }

    const auto before = relay.read_counters();
    const std::vector<frames> sent{
        {"a.bc", {"\0x\0", 3}, std::string(16, '\0')}, {"b", "", ""}, {"a", "c", "d"}, {"a.b", "", "end"}};
    for (const auto& message : sent) publisher.send(message);
    EXPECT_EQ(subscriber_of_a.receive(), sent[0]);
    EXPECT_EQ(subscriber_of_a.receive(), sent[3]);
    EXPECT_EQ(subscriber_of_b.receive(), sent[1]);

    const auto after = relay.read_counters();
    EXPECT_EQ(after.messages_in - before.messages_in, 4U);
    EXPECT_EQ(after.bytes_in - before.bytes_in, 23U + 1U + 3U + 6U);
    EXPECT_EQ(after.messages_out, after.messages_in);
    EXPECT_EQ(after.bytes_out, after.bytes_in);
}

TEST_F(relay_hub, loses_nothing_of_a_burst_although_the_subscriber_reads_late) {
    constexpr std::uint64_t burst = 20'000;
    hub relay(ipc_options());
    peer publisher(ZMQ_XPUB, relay.pub_endpoint());
    peer subscriber(ZMQ_SUB, relay.sub_endpoint());
    subscriber.subscribe("");
    open_road(publisher, subscriber, "probe");
    const auto before = relay.read_counters().messages_out;
    for (std::uint64_t i = 0; i < burst; ++i) publisher.send({"t", std::to_string(i), "metadata"});
    while (relay.read_counters().messages_out < before + burst) std::this_thread::yield();
    for (std::uint64_t i = 0; i < burst; ++i) ASSERT_EQ(subscriber.receive().at(1), std::to_string(i));
}

TEST_F(relay_hub, survives_a_frame_over_the_limit_and_relays_one_at_the_limit) {
    hub relay(loopback);
    peer publisher(ZMQ_XPUB, relay.pub_endpoint());
    peer subscriber(ZMQ_SUB, relay.sub_endpoint());
    subscriber.subscribe("");
    open_road(publisher, subscriber, "probe");
    const frames largest{"t", std::string(hub::largest_message, 'x')};
    publisher.send(largest);
    EXPECT_TRUE(subscriber.receive() == largest);
    publisher.send({"t", std::string(hub::largest_message + 1, 'x')});
    open_road(publisher, subscriber, "probe");
}

TEST_F(relay_hub, names_the_endpoint_and_the_reason_when_it_refuses_one) {
    const std::string open_folder = folder + "/open";
    std::filesystem::create_directory(open_folder);
    chmod(open_folder.c_str(), 0750);
    std::filesystem::create_directory_symlink(folder, open_folder + "/link");
    std::ofstream(folder + "/file") << "precious";
    hub live(loopback);
    const struct {
        std::string endpoint, reason;
    } table[] = {
        {"", "neither"},
        {"inproc://x", "neither"},
        {"tcp://", "HOST:PORT"},
        {"tcp://127.0.0.1", "HOST:PORT"},
        {"tcp://127.0.0.1:70000", "65535"},
        {"tcp://127.0.0.1:5;0.0.0.0:5", "loopback"},
        {"tcp://*:*", "loopback"},
        {"tcp://0.0.0.0:*", "loopback"},
        {"tcp://[::]:*", "loopback"},
        {"tcp://127.0.0.1.example:*", "loopback"},
        {"ipc://", "path"},
        {"ipc://*", "path"},
        {"ipc://@name", "abstract"},
        {ipc(std::string(120, 'x')), "the longest possible is 107"},
        {"ipc:///tmp/socket", geteuid() == 0 ? "has mode 1777" : "belongs to user 0"},
        {ipc("open/socket"), open_folder + " has mode 0750"},
        {ipc("open/link/socket"), "not a folder"},
        {ipc("file"), "not a socket"},
        {live.pub_endpoint(), "Address already in use"},
    };
    for (const auto& [endpoint, reason] : table) {
        const auto text = refusal_of({ipc("other"), endpoint});
        EXPECT_TRUE(text.starts_with("could not bind hub subscription endpoint " + endpoint + ": ")) << text;
        EXPECT_NE(text.find(reason), std::string::npos) << text;
        EXPECT_EQ(files(), 2U) << "what the first endpoint needed must be gone after " << text;
    }
}

TEST_F(relay_hub, accepts_every_kind_of_local_endpoint_and_remote_ones_when_allowed) {
    for (const std::string endpoint : {"tcp://localhost:*", "tcp://127.1.2.3:*"}) {
        EXPECT_EQ(refusal_of({endpoint, ipc("made/on/the/way/sub")}), "accepted");
    }
    const auto ipv6 = refusal_of({"tcp://[::1]:*", ipc("sub")});
    EXPECT_EQ(ipv6.find("loopback"), std::string::npos) << "a machine may be without IPv6, but: " << ipv6;
    EXPECT_EQ(refusal_of({"ipc://@" + folder, "tcp://0.0.0.0:*", true}), "accepted");
    EXPECT_EQ(std::filesystem::status(folder + "/made").permissions(), std::filesystem::perms::owner_all);
}

TEST_F(relay_hub, keeps_its_path_from_a_second_hub_and_goes_on_working) {
    hub relay(ipc_options());
    const auto text = refusal_of({ipc("pub"), ipc("other")});
    EXPECT_NE(text.find(ipc("pub") + ": another hub holds it"), std::string::npos) << text;
    peer publisher(ZMQ_XPUB, relay.pub_endpoint());
    peer subscriber(ZMQ_SUB, relay.sub_endpoint());
    subscriber.subscribe("");
    open_road(publisher, subscriber, "probe");
}

TEST_F(relay_hub, starts_over_what_a_killed_hub_left_and_leaves_nothing_itself) {
    sockaddr_un address{AF_UNIX, {}};
    (folder + "/pub").copy(address.sun_path, sizeof address.sun_path - 1);
    const int left_over = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(left_over, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(left_over);
    std::ofstream(folder + "/pub.lock");
    hub relay(ipc_options());
    EXPECT_EQ(files(), 4U);
    relay.stop();
    relay.stop();
    EXPECT_EQ(files(), 0U);
    EXPECT_THROW(relay.read_counters(), std::runtime_error);
}

/// Fills the subscriber's connection until it stalls, surely in the middle of a message. The publisher is
/// left with nothing to send: libzmq would not let it go safely either.
void stall(hub& relay, peer& publisher, peer& subscriber) {
    subscriber.subscribe("");
    open_road(publisher, subscriber, "probe");
    const auto wanted = relay.read_counters().messages_out + 1000;
    for (int i = 0; i < 1000; ++i) publisher.send({"t", std::string(20'000, 'x'), "metadata"});
    while (relay.read_counters().messages_out < wanted) std::this_thread::yield();
}

TEST_F(relay_hub, stops_although_a_peer_does_not_read_and_binds_the_same_endpoints_again) {
    hub relay(loopback);
    peer publisher(ZMQ_XPUB, relay.pub_endpoint());
    peer subscriber(ZMQ_SUB, relay.sub_endpoint());
    stall(relay, publisher, subscriber);
    relay.stop();
    EXPECT_EQ(refusal_of({relay.pub_endpoint(), relay.sub_endpoint()}), "accepted");
}

TEST_F(relay_hub, stops_at_the_moment_at_which_peers_that_did_not_read_leave) {
    for (int round = 0; round < 20; ++round) {
        hub relay(loopback);
        auto publisher = std::make_unique<peer>(ZMQ_XPUB, relay.pub_endpoint());
        auto subscriber = std::make_unique<peer>(ZMQ_SUB, relay.sub_endpoint());
        stall(relay, *publisher, *subscriber);
        std::thread leaving([&] {
            subscriber.reset();
            publisher.reset();
        });
        relay.stop();
        leaving.join();
    }
}

}  // namespace

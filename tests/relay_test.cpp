#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <zmq.h>

#include "tolvan/relay/hub.hpp"

namespace {

using testing::HasSubstr, testing::StartsWith;
using tolvan::relay::hub;
using frames = std::vector<std::string>;

/// A publisher or a subscriber: a plain socket with a context of its own, as in another process.
struct peer {
    peer(int type, const std::string& endpoint)
        : context(zmq_ctx_new(), zmq_ctx_term), socket(zmq_socket(context.get(), type), zmq_close) {
        set(ZMQ_LINGER, 0);
        set(ZMQ_SNDHWM, 0);
        EXPECT_EQ(zmq_connect(socket.get(), endpoint.c_str()), 0);
    }
    void set(int option, int value) { zmq_setsockopt(socket.get(), option, &value, sizeof value); }
    void send(const frames& message) {
        for (const auto& frame : message)
            zmq_send(socket.get(), frame.data(), frame.size(), &frame == &message.back() ? 0 : ZMQ_SNDMORE);
    }
    /// The next message; empty when none comes in time, for which only a failing test waits so long.
    frames receive(int wait_ms = 30'000) {
        set(ZMQ_RCVTIMEO, wait_ms);
        frames message;
        zmq_msg_t frame;
        zmq_msg_init(&frame);
        while ((message.empty() || zmq_msg_more(&frame)) && zmq_msg_recv(&frame, socket.get(), 0) != -1)
            message.emplace_back(static_cast<char*>(zmq_msg_data(&frame)), zmq_msg_size(&frame));
        zmq_msg_close(&frame);
        return message;
    }

    std::unique_ptr<void, int (*)(void*)> context, socket;
};

/// A publisher and a subscriber that reach each other through a hub.
struct road {
    explicit road(const hub& relay, const std::string& prefix = "")
        : publisher(ZMQ_XPUB, relay.pub_endpoint()), subscriber(ZMQ_SUB, relay.sub_endpoint()) {
        for (const auto& text : {prefix, std::string("probe")})
            zmq_setsockopt(subscriber.socket.get(), ZMQ_SUBSCRIBE, text.data(), text.size());
        prove();
    }
    /// Sends probes until one gets through, and reads them all.
    void prove() {
        for (int tries = 0; subscriber.receive(10).empty() && tries < 3000; ++tries)
            publisher.send({"probe"});
        publisher.send({"probe", "last"});
        frames got;
        while ((got = subscriber.receive()) == frames{"probe"}) continue;
        EXPECT_EQ(got, (frames{"probe", "last"})) << "the hub does not relay";
    }

    peer publisher, subscriber;
};

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
    ~relay_hub() override { std::filesystem::remove_all(folder); }
    std::string ipc(const std::string& file) const { return "ipc://" + folder + "/" + file; }
    auto files() const { return std::distance(std::filesystem::directory_iterator(folder), {}); }

    const hub::options loopback{"tcp://127.0.0.1:*", "tcp://127.0.0.1:*"};
    char unique_name[23] = "/tmp/relay_test.XXXXXX";
    const std::string folder = mkdtemp(unique_name);
};

TEST_F(relay_hub, relays_frames_up_to_the_limit_byte_for_byte_by_prefix_and_counts_them) {
    hub relay(loopback);
    road through(relay, "a.b");
    EXPECT_EQ(through.publisher.receive(), frames{"\1"}) << "publishers are told that everything is wanted";
    const auto before = relay.read_counters();
    const std::vector<frames> sent{
        {"a.bc", {"\0x\0", 3}, std::string(16, '\0')}, {"b", "", ""}, {"a", "c", "d"}, {"a.b", "", "end"}};
    for (const auto& message : sent) through.publisher.send(message);
    for (const auto& wanted : {sent[0], sent[3]}) EXPECT_EQ(through.subscriber.receive(), wanted);
    const auto after = relay.read_counters();
    EXPECT_EQ(after.messages_in - before.messages_in, 4U);
    EXPECT_EQ(after.bytes_in - before.bytes_in, 23U + 1U + 3U + 6U);
    EXPECT_EQ(std::pair(after.messages_out, after.bytes_out), std::pair(after.messages_in, after.bytes_in));

    const std::string largest(hub::largest_message, 'x');
    through.publisher.send({"a.b", largest});
    EXPECT_TRUE(through.subscriber.receive().at(1) == largest);
    through.publisher.send({"a.b", largest + 'x'});
    through.prove();
}

TEST_F(relay_hub, loses_nothing_of_a_burst_although_the_subscriber_reads_late) {
    hub relay({ipc("pub"), ipc("sub")});
    road through(relay);
    const auto wanted = relay.read_counters().messages_out + 20'000;
    for (int i = 0; i < 20'000; ++i) through.publisher.send({"t", std::to_string(i), "metadata"});
    while (relay.read_counters().messages_out < wanted) std::this_thread::yield();
    for (int i = 0; i < 20'000; ++i) ASSERT_EQ(through.subscriber.receive().at(1), std::to_string(i));
}

TEST_F(relay_hub, names_the_endpoint_and_the_reason_when_it_refuses_one_and_leaves_the_holder_alone) {
    const std::string open_folder = folder + "/open";
    std::filesystem::create_directory(open_folder);
    chmod(open_folder.c_str(), 0750);
    std::filesystem::create_directory_symlink(folder, open_folder + "/link");
    std::ofstream(folder + "/file") << "precious";
    hub holder({"tcp://127.0.0.1:*", ipc("held")});
    const auto files_before = files();
    const std::map<std::string, frames> refused_for{
        {"neither", {"", "inproc://x"}},
        {"HOST:PORT", {"tcp://", "tcp://127.0.0.1"}},
        {"65535", {"tcp://127.0.0.1:70000"}},
        {"not a loopback", {"tcp://*:*", "tcp://[::]:*", "tcp://127.0.0.1:5;0.0.0.0:5", "tcp://127.1.eu:*"}},
        {"path", {"ipc://", "ipc://*"}},
        {"abstract", {"ipc://@name"}},
        {"the longest possible is 107", {ipc(std::string(120, 'x'))}},
        {"folder /tmp ", {"ipc:///tmp/socket"}},
        {open_folder + " has mode 0750", {ipc("open/socket")}},
        {"not a folder", {ipc("open/link/socket")}},
        {"not a socket", {ipc("file")}},
        {"Address already in use", {holder.pub_endpoint()}},
        {"another hub holds it", {holder.sub_endpoint()}},
    };
    for (const auto& [reason, endpoints] : refused_for) {
        for (const auto& endpoint : endpoints) {
            const auto text = refusal_of({ipc("other"), endpoint});
            EXPECT_THAT(text, StartsWith("could not bind hub subscription endpoint " + endpoint + ": "));
            EXPECT_THAT(text, HasSubstr(reason));
            EXPECT_EQ(files(), files_before) << "what the first endpoint needed must be gone after " << text;
        }
    }
    road{holder};
}

TEST_F(relay_hub, accepts_every_kind_of_local_endpoint_and_remote_ones_when_allowed) {
    EXPECT_EQ(refusal_of({"tcp://localhost:*", "tcp://127.1.2.3:*"}), "accepted");
    EXPECT_EQ(refusal_of({"ipc://@" + folder, "tcp://0.0.0.0:*", true}), "accepted");
    const auto ipv6 = refusal_of({ipc("made/on/the/way/pub"), "tcp://[::1]:*"});
    EXPECT_EQ(ipv6.find("loopback"), std::string::npos) << "a machine may be without IPv6, but: " << ipv6;
    EXPECT_EQ(std::filesystem::status(folder + "/made").permissions(), std::filesystem::perms::owner_all);
}

TEST_F(relay_hub, starts_over_what_a_killed_hub_left_and_leaves_nothing_itself) {
    ASSERT_EQ(mknod((folder + "/pub").c_str(), S_IFSOCK | 0700, 0), 0);
    std::ofstream(folder + "/pub.lock");
    hub relay({ipc("pub"), ipc("sub")});
    EXPECT_EQ(files(), 4);
    relay.stop();
    EXPECT_EQ(files(), 0);
    EXPECT_THROW(relay.read_counters(), std::runtime_error);
}

// The subscriber's connection is filled until it stalls, surely in the middle of a message. The publisher is
// left with nothing to send: libzmq would not let it go safely either.
TEST_F(relay_hub, stops_although_peers_do_not_read_and_binds_again_also_when_they_leave_at_that_moment) {
    for (int round = 0; round < 20; ++round) {
        hub relay(loopback);
        std::optional<road> stalled(std::in_place, relay);
        const auto wanted = relay.read_counters().messages_out + 1000;
        for (int i = 0; i < 1000; ++i) stalled->publisher.send({"t", std::string(20'000, 'x'), "metadata"});
        while (relay.read_counters().messages_out < wanted) std::this_thread::yield();
        std::thread leaving([&] { round == 0 ? void() : stalled.reset(); });
        relay.stop();
        EXPECT_EQ(refusal_of({relay.pub_endpoint(), relay.sub_endpoint()}), "accepted");
        leaving.join();
    }
}

}  // namespace

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include "tolvan/relay/hub.hpp"

namespace {

namespace fs = std::filesystem;

using namespace testing;
using tolvan::relay::hub;
using event = hub::report::event;
using frames = std::vector<std::string>;

/// A publisher or a subscriber: a plain socket with a context of its own, as in another process.
struct peer {
    peer(zmq::socket_type type, const std::string& endpoint) : socket(context, type) {
        socket.set(zmq::sockopt::linger, 0);
        socket.set(zmq::sockopt::sndhwm, 0);
        socket.connect(endpoint);
    }
    void send(const frames& message) {
        zmq::multipart_t parts;
        for (const auto& frame : message) parts.addstr(frame);
        parts.send(socket);
    }
    /// The next message; empty when none comes in time, for which only a failing test waits so long.
    frames receive(int wait_ms = 30'000) {
        socket.set(zmq::sockopt::rcvtimeo, wait_ms);
        zmq::multipart_t parts;
        parts.recv(socket);
        frames message;
        for (const auto& part : parts) message.push_back(part.to_string());
        return message;
    }

    zmq::context_t context;
    zmq::socket_t socket;
};

/// A publisher and a subscriber that reach each other through a hub.
struct road {
    explicit road(const hub& relay, const std::string& prefix = "")
        : publisher(zmq::socket_type::xpub, relay.pub_endpoint()),
          subscriber(zmq::socket_type::sub, relay.sub_endpoint()) {
        for (const auto& text : {prefix, std::string("probe")})
            subscriber.socket.set(zmq::sockopt::subscribe, text);
        prove();
    }
    /// Sends probes until one gets through, and reads them all.
    void prove() {
        frames got;
        for (int tries = 0; got.empty() && tries < 3000; ++tries) {
            publisher.send({"probe"});
            got = subscriber.receive(10);
        }
        publisher.send({"probe", "last"});
        while (got == frames{"probe"}) got = subscriber.receive();
        EXPECT_TRUE(got == (frames{"probe", "last"})) << "the hub relays nothing, or more than it should";
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

/// As the hub names it; the command is an emulator's where there is one.
std::string this_process() {
    std::string command;
    std::getline(std::ifstream("/proc/self/comm") >> std::ws, command);
    return "process " + std::to_string(getpid()) + " (" + command + ")";
}

/// Of whom the hub reports that; waits until it has reported so many.
frames peers_of(hub& relay, event wanted, std::size_t least = 0) {
    frames peers;
    pollfd reports{relay.report_descriptor(), POLLIN, 0};
    do {
        EXPECT_EQ(poll(&reports, 1, 10'000), 1) << "no report waits";
        for (const auto& [what, publisher, peer] : relay.take_reports())
            if (what == wanted) peers.push_back((publisher ? "publisher " : "subscriber ") + peer);
    } while (peers.size() < least && reports.revents != 0);
    return peers;
}

class relay_hub : public testing::Test {
  protected:
    ~relay_hub() override { fs::remove_all(folder); }
    std::string ipc(const std::string& file) const { return "ipc://" + folder + "/" + file; }
    auto files() const { return std::distance(fs::directory_iterator(folder), {}); }

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
    auto after = relay.read_counters();
    while (after.messages_out < after.messages_in) after = relay.read_counters();  // it sends, then counts
    EXPECT_EQ(after.messages_in - before.messages_in, 4U);
    EXPECT_EQ(after.bytes_in - before.bytes_in, 23U + 1U + 3U + 6U);
    EXPECT_EQ(std::pair(after.messages_out, after.bytes_out), std::pair(after.messages_in, after.bytes_in));

    const std::string largest(hub::largest_message, 'x');
    through.publisher.send({"a.b", largest});
    EXPECT_TRUE(through.subscriber.receive().at(1) == largest);
    through.publisher.send({"a.b", largest + 'x'});
    through.prove();
}

// The mark of the smallest budget is 32 768 messages, probes among them. A subscriber whose connection was
// dropped from while its queue was empty would never hear anything again.
TEST_F(relay_hub, drops_for_a_subscriber_that_does_not_keep_up_alone_tells_it_once_and_serves_it_again) {
    hub relay({.pub_endpoint = ipc("pub"), .sub_endpoint = ipc("sub"), .queue_bytes = hub::largest_message});
    road stuck(relay), reading(relay);
    const int sent = 100'000;
    for (int i = 0; i < sent; ++i) {
        reading.publisher.send({"t", std::to_string(i), "metadata"});
        ASSERT_EQ(i < 100 ? "" : reading.subscriber.receive().at(1), i < 100 ? "" : std::to_string(i - 100));
    }
    EXPECT_EQ(relay.read_counters().jams, 1U);
    EXPECT_EQ(peers_of(relay, event::jammed), frames{"subscriber " + this_process()});
    int kept = 0;
    for (frames got; (got = stuck.subscriber.receive(100)) != frames{};) {
        if (got[0] != "t") continue;
        ASSERT_EQ(got[1], std::to_string(kept++));
    }
    EXPECT_THAT(kept, AllOf(Ge(32'000), Lt(sent)));
    stuck.prove();
}

TEST_F(relay_hub, passes_on_or_drops_messages_of_many_frames_as_a_whole) {
    hub relay({.pub_endpoint = ipc("pub"), .sub_endpoint = ipc("sub"), .queue_bytes = hub::largest_message});
    road stuck(relay), reading(relay);
    const frames message(300, std::string(40, 'x'));
    for (int i = 0; i < 2000; ++i) {
        reading.publisher.send(message);
        ASSERT_EQ(reading.subscriber.receive(), message);
    }
    EXPECT_GE(relay.read_counters().jams, 1U);
    EXPECT_EQ(peers_of(relay, event::disconnected, 1), frames{"subscriber " + this_process()}) << "is cut";
    for (frames got; (got = stuck.subscriber.receive(100)) != frames{};) {
        if (got[0] == "probe") continue;
        ASSERT_EQ(got, message);
    }
    stuck.prove();
}

TEST_F(relay_hub, tells_who_comes_who_goes_and_who_is_refused) {
    hub relay({ipc("pub"), loopback.sub_endpoint});
    std::optional<peer> more(std::in_place, zmq::socket_type::xpub, relay.pub_endpoint());
    more->receive();
    std::optional<road> peers(std::in_place, relay);
    const auto now = relay.read_counters();
    EXPECT_EQ(now.publishers, 2U);
    EXPECT_EQ(now.subscribers, 1U);
    const auto connected = peers_of(relay, event::connected);
    const std::string publisher = "publisher " + this_process(), loopback_peer = "subscriber 127.0.0.1:";
    EXPECT_THAT(connected, UnorderedElementsAre(publisher, publisher, StartsWith(loopback_peer)));
    std::optional<peer> stranger(std::in_place, zmq::socket_type::push, relay.sub_endpoint());
    EXPECT_THAT(peers_of(relay, event::refused, 1),
                Contains(AnyOf(StartsWith(loopback_peer), "subscriber a peer that left at once")));
    stranger.reset(), more.reset(), peers.reset();
    while (relay.read_counters().publishers + relay.read_counters().subscribers > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_THAT(peers_of(relay, event::disconnected), IsSupersetOf(connected));
    pollfd reports{relay.report_descriptor(), POLLIN, 0};
    EXPECT_EQ(std::pair(poll(&reports, 1, 0), relay.take_reports().size()), std::pair(0, std::size_t{0}));
}

TEST_F(relay_hub, takes_no_signals_hands_no_descriptor_on_to_programs_that_are_started_and_keeps_none) {
    const auto inheritable_and_all = [] {
        std::pair<int, int> counts;
        for (int number = 0; number < 1024; ++number) {
            const int flags = fcntl(number, F_GETFD);
            counts.first += flags == 0;
            counts.second += flags != -1;
        }
        return counts;
    };
    const auto before = inheritable_and_all();
    {
        const hub relay({ipc("pub"), loopback.sub_endpoint});
        EXPECT_EQ(inheritable_and_all().first, before.first);
        sigset_t signals{};
        sigaddset(&signals, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        kill(getpid(), SIGUSR1);
        int waiting = 0;
        EXPECT_EQ(sigwait(&signals, &waiting), 0);
    }
    EXPECT_EQ(inheritable_and_all(), before);
}

TEST_F(relay_hub, refuses_a_queue_that_the_largest_message_would_not_fit_into) {
    const auto given = [&](auto bytes) { return refusal_of({ipc("pub"), ipc("sub"), false, {}, bytes}); };
    for (const auto bytes : {hub::largest_message - 1, hub::most_queue_bytes + 1})
        EXPECT_THAT(given(bytes), HasSubstr(std::to_string(bytes)));
    EXPECT_EQ(given(hub::most_queue_bytes), "accepted");
}

TEST_F(relay_hub, names_the_endpoint_and_the_reason_when_it_refuses_one_and_leaves_the_holder_alone) {
    fs::create_directory(folder + "/open");
    fs::permissions(folder + "/open", fs::perms(0750));
    fs::create_directory_symlink(folder, folder + "/open/link");
    std::ofstream(folder + "/file") << "precious";
    fs::create_symlink("file", folder + "/linked.lock");
    hub holder({"tcp://127.0.0.1:*", ipc("held")});
    const auto files_before = files();
    const std::map<std::string, frames> refused_for{
        {"neither", {"", "inproc://x"}},
        {"HOST:PORT", {"tcp://", "tcp://127.0.0.1"}},
        {"65535", {"tcp://127.0.0.1:70000"}},
        {"not a loopback address; other machines need --allow-remote",
         {"tcp://*:*", "tcp://[::]:*", "tcp://128.0.0.1:*", "tcp://lo:*"}},
        {"unknown host", {"tcp://127.0.0.1:5;0.0.0.0:5", "tcp://127.1.eu:*", "tcp://::1:*"}},
        {"path", {"ipc://", "ipc://*", ipc("folder/")}},
        {"abstract", {"ipc://@name"}},
        {"the longest possible is 107", {ipc(std::string(120, 'x'))}},
        {"folder /tmp ", {"ipc:///tmp/socket"}},
        {"not a folder", {ipc("open/link/socket")}},
        {"not a socket", {ipc("file")}},
        {"cannot open lock file", {ipc("linked")}},
        {"Address already in use", {holder.pub_endpoint()}},
        {"another hub holds it", {holder.sub_endpoint()}},
        {"it is the publishing endpoint too", {ipc("other"), ipc("no/../other"), ipc("open/link/other")}},
    };
    for (const auto& [reason, endpoints] : refused_for) {
        for (const auto& endpoint : endpoints) {
            const auto text = refusal_of({ipc("other"), endpoint});
            EXPECT_THAT(text, StartsWith("could not bind hub subscription endpoint " + endpoint + ": "));
            EXPECT_THAT(text, HasSubstr(reason));
            EXPECT_EQ(files(), files_before) << "what the first endpoint needed must be gone after " << text;
        }
    }
    EXPECT_THAT(refusal_of({ipc("new/pub"), "tcp://*:*"}), StartsWith("could not"));
    EXPECT_EQ(files(), files_before) << "both are judged before anything is made";
    road{holder};
}

TEST_F(relay_hub, refuses_a_folder_of_another_or_that_lets_others_in_and_takes_one_for_the_group_it_is_told) {
    const auto given = [&](unsigned mode, std::optional<gid_t> group = {}) {
        fs::permissions(folder, fs::perms(mode));
        return refusal_of({ipc("pub"), ipc("sub"), false, group});
    };
    for (const unsigned mode : {0701U, 0702U, 0704U, 0710U, 0720U, 0740U, 0750U})
        EXPECT_THAT(given(mode), HasSubstr("lets others in")) << mode;
    for (const unsigned mode : {0700U, 0710U, 0740U, 0751U, 0754U, 0752U, 0770U})
        EXPECT_THAT(given(mode, getegid()), HasSubstr("needs mode 0750 and group")) << mode;
    EXPECT_THAT(given(0750, getegid() + 1), HasSubstr("needs mode 0750 and group"));
    EXPECT_EQ(given(0750, getegid()), "accepted");
    EXPECT_EQ(given(0700), "accepted");
    if (geteuid() != 0 || chown(folder.c_str(), 1, 1) == -1) GTEST_SKIP() << "only root has others' folders";
    EXPECT_THAT(given(0700), HasSubstr("belongs to user 1"));
    EXPECT_THAT(given(0750, 1), HasSubstr("belongs to user 1"));
}

TEST_F(relay_hub, makes_folders_and_sockets_that_its_owner_and_the_group_can_use_under_any_umask) {
    const std::map<std::string, unsigned> modes{{"/own", 0700},         {"/own/way", 0700},
                                                {"/own/way/pub", 0600}, {"/own/way/pub.lock", 0600},
                                                {"/shared", 0750},      {"/shared/pub", 0660}};
    for (const mode_t mask : {0777U, 0U}) {
        const mode_t before = umask(mask);
        hub own({ipc("own/way/pub"), loopback.sub_endpoint});
        hub shared({ipc("shared/pub"), loopback.sub_endpoint, false, getegid()});
        umask(before);
        for (const auto& [path, mode] : modes)
            EXPECT_EQ(fs::status(folder + path).permissions(), fs::perms(mode)) << path;
        shared.stop();
        own.stop();
        for (const auto* made : {"/own", "/shared"}) fs::remove_all(folder + made);
    }
}

TEST_F(relay_hub, accepts_every_kind_of_local_endpoint_and_remote_ones_when_allowed) {
    EXPECT_EQ(refusal_of({"tcp://localhost:*", "tcp://127.1.2.3:*"}), "accepted");
    EXPECT_EQ(refusal_of({"ipc://@" + folder, "tcp://0.0.0.0:*", true}), "accepted");
    EXPECT_THAT(refusal_of({ipc("made/pub"), "tcp://[::1]:*"}),
                AnyOf("accepted", HasSubstr("Cannot assign"), HasSubstr("family not supported")));
    const auto elsewhere = fs::current_path();
    fs::current_path(folder);
    EXPECT_EQ(hub({"ipc://relative/pub", loopback.sub_endpoint}).pub_endpoint(), ipc("relative/pub"));
    fs::current_path(elsewhere);
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
        const auto wanted = relay.read_counters().messages_out + 500;
        for (int i = 0; i < 500; ++i) stalled->publisher.send({"t", std::string(20'000, 'x'), "metadata"});
        while (relay.read_counters().messages_out < wanted)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::thread leaving([&] { round == 0 ? void() : stalled.reset(); });
        relay.stop();
        EXPECT_EQ(refusal_of({relay.pub_endpoint(), relay.sub_endpoint()}), "accepted");
        leaving.join();
    }
}

}  // namespace

// The road from an application to the backends: library, factory, initialize, slots.
#include <cstdlib>
#include <tuple>

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/v1/connection.hpp>

#include "support/whole_bus.hpp"

namespace {

using namespace tolvan;
using testing::AllOf;
using testing::HasSubstr;
using vesk::v1::conf_t;
using vesk::v1::connection;
using vesk::v1::publisher;
using vesk::v1::subscriber;

class a_connection : public test::whole_bus {
  protected:
    // Connects and returns the text of the failure.
    std::string failure_of(const conf_t& conf) {
        try {
            const connection refused(conf, loop);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "nothing was thrown";
    }

    conf_t conf() const { return {.pub_endpoint = hub.pub_endpoint(), .sub_endpoint = hub.sub_endpoint()}; }

    static auto slots() {
        return std::tuple(subscriber::backend::instance, publisher::backend::instance,
                          vesk::v1::reqrep_client::backend::instance,
                          vesk::v1::reqrep_server::backend::instance);
    }
};

TEST_F(a_connection, waits_for_the_hub_as_configured_also_after_the_object_is_gone) {
    ::setenv("ZSYS_SIGHANDLER", "true", 1);
    conf_t waiting = conf();
    waiting.block_on_first_publish = true;
    { connection(waiting, loop).set_service_name("any"); }
    EXPECT_STREQ("false", std::getenv("ZSYS_SIGHANDLER"));
    hub.meet_publisher();
    logged();
    publisher().publish("svc:a", "waits for the hub");
    EXPECT_THAT(logged().at(0), HasSubstr("doing a blocking receive"));
    EXPECT_EQ("waits for the hub", published().second);
}

TEST_F(a_connection, that_fails_leaves_what_was_installed_before) {
    const auto before = slots();
    const std::string incomplete = "incomplete configuration provided for hub-based configuration";
    EXPECT_EQ(incomplete, failure_of({.pub_endpoint = "", .sub_endpoint = "inproc://x"}));
    EXPECT_EQ(incomplete, failure_of({.pub_endpoint = "inproc://x", .sub_endpoint = ""}));
    const std::string bad = "not-%s-endpoint", refused = " socket at " + bad + ", reason -1";
    EXPECT_EQ("could not connect to ZMQ subscription" + refused,
              failure_of({.pub_endpoint = hub.pub_endpoint(), .sub_endpoint = bad}));
    EXPECT_EQ(before, slots());
    EXPECT_EQ("could not connect to ZMQ publishing" + refused,
              failure_of({.pub_endpoint = bad, .sub_endpoint = hub.sub_endpoint()}));
    EXPECT_NE(before, slots()) << "the subscriber's is there already";
    subscriber::backend::instance = std::get<0>(before);
    EXPECT_EQ(before, slots());
}

TEST_F(a_connection, that_is_made_again_replaces_and_destroys_the_backends_in_the_order_of_their_needs) {
    const auto weak = [](const auto&... slot) { return std::tuple(std::weak_ptr(slot)...); };
    const auto old = std::apply(weak, slots());
    const connection second(conf(), loop);
    std::apply([](const auto&... gone) { EXPECT_TRUE((gone.expired() && ...)); }, old);

    auto& client = vesk::v1::reqrep_client::backend::instance;
    client = {client.get(), [held = client](auto*) { EXPECT_TRUE(subscriber::backend::instance); }};
    vesk::v1::release_backends();
    EXPECT_EQ(std::tuple(nullptr, nullptr, nullptr, nullptr), slots());
}

// A child shares the parent's epoll set: what it takes out there, the parent does not hear any more.
TEST_F(a_connection, stays_open_when_a_forked_child_ends_by_exit) {
    const auto epoll = std::make_shared<asio_event_loop>();
    connection(conf(), epoll);
    subscriber receiver;
    std::string received;
    receiver.subscribe("a", nullptr, [&](const auto&, const auto& data) { received = data, epoll->stop(); });
    hub.await_filter(hub.set("a"));
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) std::exit(0);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));  // a leak checker may change the code: czmq forgets all after a fork
    hub.relay("a", "heard");
    const auto patience = epoll->create_timer("test", std::chrono::seconds(20), {}, [&] { epoll->stop(); });
    epoll->run();
    EXPECT_EQ("heard", received);
}

TEST_F(a_connection, to_a_missing_library_or_one_without_the_factory_names_both) {
    const auto factory = HasSubstr("tolvan_vesk_v1_connection_impl");
    EXPECT_THAT(failure_of({.backend = "nowhere"}), AllOf(HasSubstr(" libvesk-nowhere.so for"), factory));
    EXPECT_THAT(failure_of({.backend = "no/where.so"}), HasSubstr(" no/where.so for"));
    EXPECT_THAT(failure_of({.backend = "lacking"}), AllOf(HasSubstr("/libvesk-lacking.so has no"), factory));
}

TEST_F(a_connection, has_the_bus_log_misuse_that_would_go_unseen) {
    vesk::v1::reqrep_client client;
    logged();
    client.request("svc", "get", "", true, nullptr);
    for (const char* identity : {"svc", "", "a.b", "a:b"}) {
        vesk::v1::reqrep_server server;
        server.set_uuid(identity);
        server.set_command_handler("get", true, nullptr, [](auto&&, auto&&) {});
    }
    const auto unreachable = [](const std::string& identity) {
        return "1 platform/vesk/reqrep_server set_command_handler: server_id=" + identity +
               " contains “.” or “:”, so no request for command=get can be answered; please fix your code";
    };
    EXPECT_EQ(
        (test::texts{"1 platform/vesk/reqrep_client request: request for svc.get has an empty callback; "
                     "please fix your code",
                     unreachable("a.b"), unreachable("a:b")}),
        logged('1'));
}

TEST_F(a_connection, is_needed_to_use_a_bus_object_but_not_to_destroy_one) {
    vesk::v1::release_backends();
    subscriber receiver;
    publisher sender;
    vesk::v1::reqrep_client client;
    vesk::v1::reqrep_server server;
    EXPECT_THROW(client.request("a", "b", "", true, nullptr), std::logic_error);
    EXPECT_THROW(server.set_command_handler("a", true, nullptr, nullptr), std::logic_error);
    EXPECT_THROW(connection(conf(), nullptr), std::invalid_argument);
    EXPECT_THROW(sender.publish("a", "b"), std::logic_error);
    EXPECT_THROW(receiver.subscribe("a", nullptr, nullptr), std::logic_error);
    receiver.revoke_subscriptions();
}

TEST(a_named_client, without_a_uuid_has_an_identity_of_its_own_that_no_topic_is_cut_at) {
    subscriber one;
    const subscriber two;
    const std::string own = "luid-" + std::to_string(::getpid()) + "-";
    EXPECT_THAT(one.get_uuid_or_luid(), testing::MatchesRegex(own + "[0-9]+"));
    EXPECT_NE(one.get_uuid_or_luid(), two.get_uuid_or_luid());
    one.set_uuid("svc");
    EXPECT_EQ("svc", one.get_uuid_or_luid());
}

TEST(a_socket, hands_its_handle_on_by_assignment_and_survives_its_own) {
    vesk::hub::socket sub(ZMQ_SUB);
    vesk::hub::socket xpub(ZMQ_XPUB);
    const zsock_t* const handle = xpub.get();
    vesk::hub::socket& same = xpub;
    xpub = std::move(same);
    EXPECT_EQ(handle, xpub.get());
    sub = std::move(xpub);
    EXPECT_EQ(handle, sub.get());
    EXPECT_STREQ("XPUB", zsock_type_str(sub.get()));
    static_assert(!std::is_copy_constructible_v<vesk::hub::socket>);
}

}  // namespace

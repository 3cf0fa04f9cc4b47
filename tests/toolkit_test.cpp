// The toolkit over the installed transport and a real hub, on every event loop.
#include <atomic>
#include <thread>

#include <gmock/gmock.h>

#include <tolvan/relay/hub.hpp>
#include <tolvan/vesk/toolkit/hub_presence.hpp>
#include <tolvan/vesk/toolkit/post_queue.hpp>
#include <tolvan/vesk/toolkit/typed_calls.hpp>
#include <tolvan/vesk/v1/connection.hpp>

#include "support/event_loops.hpp"

namespace {

using namespace std::chrono_literals;
using namespace tolvan::vesk;
using texts = std::vector<std::string>;

struct rectangle {
    int width = 0;
    int height = 0;

    static constexpr auto description() {
        return tolvan::sedes::v1::composite(tolvan::sedes::v1::plain("width", &rectangle::width),
                                            tolvan::sedes::v1::plain("height", &rectangle::height));
    }
};

template <typename Loop>
class application : public testing::Test {
  protected:
    application() {
        v1::connection({.pub_endpoint = hub.pub_endpoint(), .sub_endpoint = hub.sub_endpoint()}, host.loop);
        server.set_uuid("geometry");
    }
    ~application() override { v1::release_backends(); }

    // Runs the loop until the hub knows all subscriptions, and then until `done`.
    void run_ready(const std::function<void()>& ready) {
        toolkit::hub_presence presence(host.loop, {.ready = ready});
        host.run();
    }

    template <typename Reply>
    void ask(const std::string& command, int width, const std::string& target = "geometry") {
        toolkit::request<Reply>(
            client, target, command, rectangle{width, 2}, [this](auto&& reply) { end(said(reply)); },
            [this](const std::exception& failure) { end(kind(failure) + failure.what()); });
    }

    static std::string said(int area) { return std::to_string(area); }
    static std::string said(const rectangle& reply) { return said(reply.width) + "x" + said(reply.height); }
    static std::string kind(const std::exception& failure) {
        if (dynamic_cast<const toolkit::request_refused*>(&failure)) return "refused: ";
        if (dynamic_cast<const toolkit::reply_undecodable*>(&failure)) return "undecodable: ";
        if (dynamic_cast<const v1::reqrep_client::request_timeout*>(&failure)) return "timeout: ";
        return "not sent: ";
    }

    void end(const std::string& outcome) {
        outcomes.push_back(outcome);
        if (outcomes.size() == awaited) host.stop();
    }

    tolvan::relay::hub hub{{"tcp://127.0.0.1:*", "tcp://127.0.0.1:*"}};
    Loop host;
    v1::reqrep_server server;
    v1::reqrep_client client;
    texts outcomes;
    std::size_t awaited = 1;
};

TYPED_TEST_SUITE(application, tolvan::test::all_loops);

TYPED_TEST(application, gets_a_decoded_reply_from_a_server_that_it_asks_as_soon_as_the_hub_is_ready) {
    toolkit::serve<rectangle>(this->server, "area", [](rectangle&& r) { return r.width * r.height; });
    this->run_ready([this] { this->template ask<int>("area", 21); });
    EXPECT_THAT(this->outcomes, testing::ElementsAre("42"));
}

TYPED_TEST(application, runs_what_other_threads_post_on_its_own_thread_in_order_and_past_an_exception) {
    constexpr int posted = 1000;
    toolkit::post_queue queue(this->host.loop);
    std::vector<int> numbers;
    const std::jthread other([&] {
        for (int i = 0; i <= posted; ++i)
            queue.post([&, i, own = std::this_thread::get_id()] {
                EXPECT_NE(own, std::this_thread::get_id());
                numbers.push_back(i);
                if (i == 10) throw std::runtime_error("posted");
                if (i == posted) this->host.stop();
            });
    });
    EXPECT_THROW(this->host.run(), std::runtime_error);
    this->host.run();
    EXPECT_EQ(posted + 1U, numbers.size());
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
}

class on_asio : public application<tolvan::test::asio_loop> {};

TEST_F(on_asio, failures_of_requests_are_told_apart_by_their_types) {
    toolkit::serve<rectangle>(server, "area", [](const rectangle& r) { return r.width * r.height; });
    toolkit::serve<rectangle>(server, "root",
                              [](const rectangle&) -> rectangle { throw std::logic_error("negative"); });
    toolkit::serve<std::string>(server, "name", [](std::string&& name) { return name; });
    server.set_command_handler("never", true, nullptr, [](auto&&, auto) {});
    awaited = 5;
    run_ready([this] {
        v1::reqrep_client::set_timeout(50ms);
        for (const auto* command : {"area", "root", "name", "never"}) ask<rectangle>(command, 1);
        ask<int>("area", 3);
    });
    EXPECT_THAT(outcomes, testing::UnorderedElementsAre(testing::HasSubstr("undecodable: "),
                                                        "refused: negative", testing::HasSubstr("refused: "),
                                                        testing::HasSubstr("timeout: "), "6"));
}

TEST_F(on_asio, a_request_without_reply_ends_when_it_is_accepted_and_a_record_is_published_as_json) {
    v1::subscriber subscriber;
    subscriber.subscribe("moved", nullptr,
                         [this](const auto&, const std::string& data) { end("published " + data); });
    toolkit::serve<rectangle>(server, "move", [this](rectangle&& r) {
        end("handled " + said(r));
        toolkit::publish(client, "moved", r);
    });
    awaited = 3;
    run_ready([this] {
        toolkit::request<void>(
            client, "geometry", "move", rectangle{3, 4}, [this] { end("accepted"); },
            [](const std::exception& failure) { FAIL() << failure.what(); });
    });
    EXPECT_THAT(outcomes, testing::UnorderedElementsAre("handled 3x4", "accepted",
                                                        R"(published {"width":3,"height":4})"));
}

TEST_F(on_asio, what_could_only_be_lost_without_a_word_is_refused) {
    const auto refused_as = [](const std::string& text) {
        return testing::ThrowsMessage<std::invalid_argument>(testing::HasSubstr(text));
    };
    EXPECT_THAT([&] { ask<int>("area", 1, "a.b"); }, refused_as("'a.b'"));
    EXPECT_THAT([&] { ask<int>("area", 1, ""); }, refused_as("''"));
    EXPECT_THAT([&] { ask<int>("x:area", 1); }, refused_as("'x:area'"));
    EXPECT_THAT([&] { toolkit::request<int>(client, "geometry", "area", 1, nullptr, [](auto&) {}); },
                refused_as("geometry.area: the callback is empty"));
    EXPECT_THAT([&] { toolkit::serve<int>(server, "area", std::function<int(int)>()); },
                refused_as("geometry.area: the callback is empty"));
    server.set_uuid("a:b");
    EXPECT_THAT([&] { toolkit::serve<int>(server, "area", [](int) {}); }, refused_as("'a:b'"));
    EXPECT_THAT([&] { toolkit::post_queue(host.loop).post(nullptr); }, refused_as("empty"));
}

TEST_F(on_asio, a_posted_function_may_destroy_its_queue_and_what_waits_there_is_destroyed_unrun) {
    auto queue = std::make_unique<toolkit::post_queue>(host.loop);
    const auto captured = std::make_shared<int>();
    queue->post([&] {
        queue.reset();
        host.stop();
    });
    queue->post([captured] { FAIL() << "its queue was gone"; });
    host.run();
    EXPECT_EQ(1, captured.use_count());
}

}  // namespace

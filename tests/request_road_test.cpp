// Requests over the real loop and a real hub: none may be lost, answered twice or time out.
#include <cstdlib>
#include <functional>
#include <vector>

#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>

#include "support/real_bus.hpp"

namespace {

using namespace tolvan;
using json = sedes::v1::opaque_json_block;

class the_road_of_a_request : public test::real_bus {
  protected:
    the_road_of_a_request() {
        server.set_uuid("svc");
        server.set_command_handler<json>(
            "echo", true, [](auto&& request, auto&& payload) { request.reply(payload.to_string()); });
        await_hub();
    }

    // Issues request number `number`; its outcome is counted, and `then` is called.
    void ask(std::size_t number, const std::function<void()>& then) {
        client.request("svc", "echo", std::to_string(number), true,
                       [this, number, then](const std::string* reply, const std::exception_ptr& failure) {
                           EXPECT_FALSE(failure);
                           EXPECT_EQ(std::to_string(number), reply != nullptr ? *reply : "none");
                           ++ended[number];
                           then();
                       });
    }

    vesk::v1::reqrep_server server;
    vesk::v1::reqrep_client client;
    std::vector<int> ended;
};

// VESK_REQUESTS asks for another number.
TEST_F(the_road_of_a_request, is_gone_to_its_end_exactly_once_one_after_another) {
    const char* const wanted = std::getenv("VESK_REQUESTS");
    ended.resize(wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : 300);
    std::size_t issued = 0;
    const std::function<void()> next = [&] { issued < ended.size() ? ask(issued++, next) : loop->stop(); };
    next();
    loop->run();
    EXPECT_EQ(std::vector<int>(ended.size(), 1), ended);
}

TEST_F(the_road_of_a_request, is_gone_to_its_end_exactly_once_by_400_at_once) {
    ended.resize(400);
    std::size_t answered = 0;
    for (std::size_t number = 0; number < ended.size(); ++number)
        ask(number, [&] {
            if (++answered == ended.size()) loop->stop();
        });
    loop->run();
    EXPECT_EQ(std::vector<int>(ended.size(), 1), ended);
}

}  // namespace

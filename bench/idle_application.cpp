// An application that waits for messages which never come, or, without endpoints, a process that does
// nothing:
//   idle_application [PUB_ENDPOINT SUB_ENDPOINT]
#include <unistd.h>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/v1/connection.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

int main(int argc, char** argv) {
    if (argc != 3) return ::pause();
    const auto loop = std::make_shared<tolvan::asio_event_loop>();
    const tolvan::vesk::v1::connection bus({.pub_endpoint = argv[1], .sub_endpoint = argv[2]}, loop);
    tolvan::vesk::v1::subscriber subscriber;
    subscriber.subscribe("never", nullptr, [](const auto&, const auto&) {});
    tolvan::vesk::v1::reqrep_server server;
    server.set_uuid("idle");
    server.set_command_handler("ask", true, nullptr, [](auto&& request, const auto&) { request.reply("1"); });
    loop->run();
}

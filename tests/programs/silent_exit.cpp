// Returns from main with every backend installed and bus objects of all lifetimes still in use. The exit is
// to be silent and orderly, also under valgrind. Needs no hub: connecting is asynchronous.
//
//   silent_exit PUB_ENDPOINT SUB_ENDPOINT
#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/v1/connection.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace {

using namespace tolvan::vesk::v1;

// One bus object of each kind, with something under way in each.
struct bus_objects {
    subscriber listener;
    publisher talker;
    reqrep_client client;
    reqrep_server server;

    void use() {
        listener.subscribe("exit", nullptr, [](const auto&, const auto&) {});
        talker.publish("exit.topic", "left behind");
        client.request("nobody", "answer", "{}", true, [](const auto*, auto) {});
        server.set_command_handler("answer", true, nullptr, [](auto&&, auto) {});
    }
};

// Made before the connection, gone after the transport.
bus_objects first;

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const auto loop = std::make_shared<tolvan::asio_event_loop>();
    static const connection bus({.pub_endpoint = argv[1], .sub_endpoint = argv[2]}, loop);
    static bus_objects last;  // gone before the transport
    bus_objects local;
    for (bus_objects* objects : {&first, &last, &local}) objects->use();

    const auto end = loop->create_timer("end", std::chrono::milliseconds(20), {}, [&] { loop->stop(); });
    loop->run();
}

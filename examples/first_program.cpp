// Publishes a greeting until it has come back through the hub, then sends a request and prints the reply.
// Needs "vesk hub" with the same two endpoints.
#include <iostream>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/v1/connection.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

struct rectangle {
    int width = 0;
    int height = 0;

    static constexpr auto description() {
        return tolvan::sedes::v1::composite(tolvan::sedes::v1::plain("width", &rectangle::width),
                                            tolvan::sedes::v1::plain("height", &rectangle::height));
    }
};

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: first_program PUB_ENDPOINT SUB_ENDPOINT\n";
        return 2;
    }
    const auto loop = std::make_shared<tolvan::asio_event_loop>();
    const tolvan::vesk::v1::connection bus({.pub_endpoint = argv[1], .sub_endpoint = argv[2]}, loop);

    tolvan::vesk::v1::reqrep_server server;
    server.set_uuid("geometry");
    server.set_command_handler<rectangle>("area", true, [](auto&& request, rectangle&& asked) {
        request.reply(std::to_string(asked.width * asked.height));
    });

    tolvan::vesk::v1::reqrep_client client;
    tolvan::vesk::v1::subscriber subscriber;
    tolvan::event_loop_v1::holder<tolvan::timer_impl_base> next;
    subscriber.subscribe("greeting", nullptr, [&](const std::string& topic, const std::string& data) {
        std::cout << topic << ": " << data << '\n';
        next.reset();
        subscriber.revoke_subscriptions();
        client.request("geometry", "area", rectangle{6, 7}, true,
                       [&](const std::string* reply, auto failure) {
                           std::cout << "geometry.area: " << (failure ? "failed" : *reply) << '\n';
                           loop->stop();
                       });
    });

    // A message that is sent before the hub knows the subscription reaches nobody: so say it again.
    tolvan::vesk::v1::publisher publisher;
    const std::function<void()> greet = [&] {
        publisher.publish("greeting.morning", "hello, bus");
        next = loop->create_timer("greet", std::chrono::milliseconds(20), {}, greet);
    };
    greet();
    loop->run();
}

// Publishes a greeting until it has come back through the hub. Needs "vesk hub" with the same two endpoints.
#include <iostream>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/v1/connection.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: first_program PUB_ENDPOINT SUB_ENDPOINT\n";
        return 2;
    }
    const auto loop = std::make_shared<tolvan::asio_event_loop>();
    const tolvan::vesk::v1::connection bus({.pub_endpoint = argv[1], .sub_endpoint = argv[2]}, loop);

    tolvan::vesk::v1::subscriber subscriber;
    subscriber.subscribe("greeting", nullptr, [&](const std::string& topic, const std::string& data) {
        std::cout << topic << ": " << data << '\n';
        loop->stop();
    });

    // A message that is sent before the hub knows the subscription reaches nobody: so say it again.
    tolvan::vesk::v1::publisher publisher;
    tolvan::event_loop_v1::holder<tolvan::timer_impl_base> next;
    const std::function<void()> greet = [&] {
        publisher.publish("greeting.morning", "hello, bus");
        next = loop->create_timer("greet", std::chrono::milliseconds(20), {}, greet);
    };
    greet();
    loop->run();
}

// Returns from main with every backend installed and bus objects of all lifetimes still in use. The exit is
// to be silent and orderly, also under valgrind. Needs no hub: connecting is asynchronous.
#include <iostream>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/v1/connection.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace {

using namespace tolvan::vesk::v1;

void ignore(const std::string& /*topic*/, const std::string& /*data*/) {}

void use(subscriber& subscriber, publisher& publisher) {
    subscriber.subscribe("exit", nullptr, ignore);
    publisher.publish("exit.topic", "left behind");
}

// Made before the connection, gone after the transport.
subscriber first_subscriber;
publisher first_publisher;

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: silent_exit PUB_ENDPOINT SUB_ENDPOINT\n";
        return 2;
    }
    const auto loop = std::make_shared<tolvan::asio_event_loop>();
    static const connection bus({.pub_endpoint = argv[1], .sub_endpoint = argv[2]}, loop);

    // Made after the connection, gone before the transport.
    static subscriber last_subscriber;
    static publisher last_publisher;
    subscriber local_subscriber;
    publisher local_publisher;
    use(first_subscriber, first_publisher);
    use(last_subscriber, last_publisher);
    use(local_subscriber, local_publisher);

    const auto end = loop->create_timer("end", std::chrono::milliseconds(20), {}, [&] { loop->stop(); });
    loop->run();
}

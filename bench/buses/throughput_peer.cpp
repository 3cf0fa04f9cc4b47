// One side of a bus, in a process of its own, for the measurement of throughput with nothing lost:
//   throughput_peer receive BUS PUB SUB COUNT | throughput_peer publish BUS PUB SUB COUNT
// At most 8000 messages are under way: the receiver writes a byte for each 4000 that have come, and for the
// first of all. The publisher prints the messages a second, 0 when some were lost.
//   throughput_peer hub nng PUB SUB      is the hub of nng
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>

#include <poll.h>
#include <unistd.h>

#include "peer.hpp"

namespace {

using namespace tolvan::bench;

constexpr int block = 4000;
constexpr int patience_ms = 20'000;

const std::string begin_topic = std::string(topic_root) + ".begin";
const std::string data_topic = std::string(topic_root) + ".data";

struct bus {
    const char* name;
    peer_factory make;
};

constexpr bus buses[] = {
    {"vesk", make_vesk_peer},
    {"czmq", make_czmq_peer},
#ifdef WITH_NATS
    {"nats", make_nats_peer},
#endif
#ifdef WITH_MOSQUITTO
    {"mosquitto", make_mosquitto_peer},
#endif
#ifdef WITH_NNG
    {"nng", make_nng_peer},
#endif
};

void tell() {
    if (::write(STDOUT_FILENO, "", 1) != 1) std::exit(1);
}

bool is_told_within(int milliseconds) {
    pollfd told = {STDIN_FILENO, POLLIN, 0};
    char byte = 0;
    return ::poll(&told, 1, milliseconds) == 1 && ::read(STDIN_FILENO, &byte, 1) == 1;
}

void receive(peer& from, int count) {
    int received = 0;
    bool begun = false;
    from.receive([&](std::string_view topic) {
        if (topic == begin_topic) {
            if (!begun) tell();
            begun = true;
        } else if (++received % block == 0)
            tell();
        return received < count;
    });
}

// Whether everything has come.
bool publish_all(peer& to, int count) {
    const std::string data(100, 'x');
    for (int sent = 0; sent < count; ++sent) {
        if (sent >= 2 * block && sent % block == 0 && !is_told_within(patience_ms)) return false;
        to.publish(data_topic, data);
    }
    return is_told_within(patience_ms) && is_told_within(patience_ms);
}

double messages_per_second(peer& to, int count) {
    do to.publish(begin_topic, "");
    while (!is_told_within(10));
    const auto before = std::chrono::steady_clock::now();
    const bool complete = publish_all(to, count);
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - before;
    return complete ? count / spent.count() : 0;
}

peer_factory factory_of(const std::string& name) {
    for (const bus& known : buses)
        if (name == known.name) return known.make;
    throw std::runtime_error("the bus \"" + name + "\" was not there when this was built");
}

int run(const std::string& role, const std::string& bus_name, const std::string& pub, const std::string& sub,
        int count) {
#ifdef WITH_NNG
    if (role == "hub") return forward_nng(pub, sub);
#endif
    const bool receives = role == "receive";
    const auto made = factory_of(bus_name)(pub, sub, receives);
    if (receives)
        receive(*made, count);
    else
        std::cout << messages_per_second(*made, count) << '\n';
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) return 2;
    ::setenv("ZSYS_SNDHWM", "100000", 1);
    try {
        return run(argv[1], argv[2], argv[3], argv[4], argc > 5 ? std::atoi(argv[5]) / block * block : 0);
    } catch (const std::exception& failure) {
        std::cerr << "throughput_peer: " << failure.what() << '\n';
        return 1;
    }
}

// An application that goes on whatever becomes of its hub: publishes a numbered tick and sends a request
// every PERIOD ms, hears its own ticks and those of others, and counts. At a line of its stdin it tells its
// counts as one JSON object; at the end of its stdin it sends no more, waits until every request has ended,
// tells them once more, and exits. With CHURN it also replaces a client with a request under way, a server
// and a subscriber every so many ms.
//
//   traffic NAME SERVER PUB_ENDPOINT SUB_ENDPOINT PERIOD [CHURN]
#include <array>
#include <chrono>
#include <iostream>
#include <map>
#include <optional>
#include <utility>

#include <unistd.h>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/v1/connection.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace {

using namespace tolvan;
using milliseconds = event_loop_v1::milliseconds;
using clock = std::chrono::steady_clock;

class traffic {
  public:
    traffic(std::string name_on_the_bus, std::string server_id, const std::string& pub,
            const std::string& sub, milliseconds period)
        : name(std::move(name_on_the_bus)),
          server(std::move(server_id)),
          bus({.pub_endpoint = pub, .sub_endpoint = sub}, loop) {
        subscriber.subscribe(
            "tick", [this](const std::string& topic) { hear(topic); }, nullptr);
        loop->watch_fd({STDIN_FILENO}, 0, [this](auto, auto) { read_stdin(); });
        every(period, sending, [this] { send(); });
    }

    void churn(milliseconds period) {
        every(period, renewing, [this] { renew(); });
    }

    void run() { loop->run(); }

  private:
    using timer = event_loop_v1::holder<timer_impl_base>;

    // A client with a request under way, a server and a subscriber that are soon replaced.
    struct passing {
        vesk::v1::reqrep_client client;
        vesk::v1::reqrep_server server;
        vesk::v1::subscriber subscriber;
    };

    void every(milliseconds period, timer& kept, const std::function<void()>& call) {
        kept = loop->create_timer("traffic", period, {}, [this, period, &kept, call] {
            every(period, kept, call);
            call();
        });
    }

    void send() {
        const long number = ++counts["sent"];
        outstanding.emplace(number, clock::now());
        publisher.publish("tick." + name + "." + std::to_string(number), "");
        client.request(server, "echo", std::to_string(number), true,
                       [this, number](const std::string* reply, const auto&) { end(number, reply); });
    }

    void hear(const std::string& topic) {
        const std::string own = "tick." + name + ".";
        if (!topic.starts_with(own)) return void(++counts["foreign"]);
        const long number = std::stol(topic.substr(own.size()));
        if (counts["heard"]++ != 0) counts["lost"] += number - counts["last_heard"] - 1;
        counts["last_heard"] = number;
    }

    void end(long number, const std::string* reply) {
        const auto begun = outstanding.extract(number);
        if (!begun || (reply != nullptr && *reply != std::to_string(number))) return void(++counts["wrong"]);
        counts[reply == nullptr ? "last_failed" : "last_answered"] = number;
        if (reply != nullptr) {
            ++counts["answered"];
            counts["round_trips_us"] +=
                static_cast<long>((clock::now() - begun.mapped()) / std::chrono::microseconds(1));
        }
        finish();
    }

    void renew() {
        const std::string id = name + "-passing";
        fleeting.emplace();
        fleeting->server.set_uuid(id);
        fleeting->server.set_command_handler<sedes::v1::opaque_json_block>(
            "echo", true, [](auto&& request, auto&& /*payload*/) { request.reply("1"); });
        fleeting->subscriber.subscribe(id + "." + std::to_string(counts["sent"]), nullptr, nullptr);
        fleeting->client.request(id, "echo", "1", true, [](const auto*, const auto&) {});
    }

    void read_stdin() {
        std::array<char, 256> ignored{};
        if (::read(STDIN_FILENO, ignored.data(), ignored.size()) > 0) return tell();
        loop->unwatch_fd({STDIN_FILENO});
        sending.reset();
        finishing = true;
        finish();
    }

    void finish() {
        if (!finishing || !outstanding.empty()) return;
        tell();
        loop->stop();
    }

    void tell() const {
        char separator = '{';
        for (const auto& [key, value] : counts)
            std::cout << std::exchange(separator, ',') << '"' << key << "\":" << value;
        std::cout << '}' << std::endl;
    }

    const std::string name, server;
    std::shared_ptr<asio_event_loop> loop = std::make_shared<asio_event_loop>();
    vesk::v1::connection bus;
    vesk::v1::publisher publisher;
    vesk::v1::reqrep_client client;
    vesk::v1::subscriber subscriber;
    std::optional<passing> fleeting;
    timer sending, renewing;
    std::map<std::string, long> counts = {
        {"sent", 0},        {"heard", 0},         {"last_heard", 0}, {"lost", 0},           {"answered", 0},
        {"last_failed", 0}, {"last_answered", 0}, {"foreign", 0},    {"round_trips_us", 0}, {"wrong", 0}};
    std::map<long, clock::time_point> outstanding;
    bool finishing = false;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 6) return 2;
    traffic application(argv[1], argv[2], argv[3], argv[4], milliseconds(std::stol(argv[5])));
    if (argc > 6) application.churn(milliseconds(std::stol(argv[6])));
    application.run();
}

// An application that goes on whatever becomes of its hub: once there is one, publishes a numbered tick and
// sends a request every PERIOD ms, hears its own ticks and those of others, and counts. At a line of its
// stdin it tells its counts as one JSON object, without those that are 0; at the end of its stdin it sends no
// more, waits until every request has ended, tells them once more, and exits. With CHURN it also replaces a
// client with a request under way, a server and a subscriber every so many ms.
//
//   traffic NAME SERVER PUB_ENDPOINT SUB_ENDPOINT PERIOD [CHURN]
#include <array>
#include <chrono>
#include <iostream>
#include <map>
#include <optional>

#include <unistd.h>

#include <tolvan/Variant.hpp>
#include <tolvan/asio_event_loop.hpp>
#include <tolvan/vesk/toolkit/hub_presence.hpp>
#include <tolvan/vesk/v1/connection.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace {

using namespace tolvan;
using clock = std::chrono::steady_clock;

class traffic {
  public:
    explicit traffic(char** arguments)
        : name(arguments[1]),
          server(arguments[2]),
          bus({.pub_endpoint = arguments[3], .sub_endpoint = arguments[4]}, loop),
          presence(loop, {.ready = [this, arguments] { every(arguments[5], sending, [this] { send(); }); }},
                   {.probe_interval{}}) {
        subscriber.subscribe(
            "tick", [this](const std::string& topic) { hear(topic); }, nullptr);
        loop->watch_fd({STDIN_FILENO}, 0, [this](auto, auto) { read_stdin(); });
        if (arguments[6] != nullptr) every(arguments[6], renewing, [this] { renew(); });
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

    void every(const char* period_ms, timer& kept, const std::function<void()>& call) {
        const event_loop_v1::milliseconds period(std::stol(period_ms));
        kept = loop->create_timer("traffic", period, {}, [this, period_ms, &kept, call] {
            every(period_ms, kept, call);
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
        finish();
    }

    void finish() {
        if (sending || !outstanding.empty()) return;
        tell();
        loop->stop();
    }

    void tell() const {
        Variant told;
        for (const auto& [key, count] : counts) told.set(key, Variant::integer(count));
        std::cout << told.toJson() << std::endl;
    }

    const std::string name, server;
    std::shared_ptr<asio_event_loop> loop = std::make_shared<asio_event_loop>();
    vesk::v1::connection bus;
    vesk::v1::publisher publisher;
    vesk::v1::reqrep_client client;
    vesk::v1::subscriber subscriber;
    vesk::toolkit::hub_presence presence;
    std::optional<passing> fleeting;
    timer sending, renewing;
    std::map<std::string, long> counts;
    std::map<long, clock::time_point> outstanding;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 6) return 2;
    traffic(argv).run();
}

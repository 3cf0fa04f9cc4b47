#pragma once

#include <functional>
#include <string>

#include <tolvan/vesk/toolkit/probe_topic.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace tolvan::vesk::tool {

/// Sees each answer to a request of this process at its receipt. The bus tells a client of the last one only,
/// and names the reply topics to nobody; they stand in each request. So this sends a request that no server
/// gets, on a probe topic, and reads what comes back of it.
class answer_watch {
  public:
    using request_id = unsigned short;

    /// `answered` is called with the id of the request. Needs a connection to the bus.
    explicit answer_watch(std::function<void(request_id)> answered);
    answer_watch(const answer_watch&) = delete;
    answer_watch& operator=(const answer_watch&) = delete;

    /// Calls `ready` when the answers to later requests will be seen. May be called once, when the hub knows
    /// the subscriptions that were made before.
    void start(std::function<void()> ready);

  private:
    void learn(const std::string& envelope);
    void see(const std::string& reply_topic) const;

    const std::function<void(request_id)> when_answered;
    std::function<void()> when_ready;
    const toolkit::probe_topic topic;
    v1::reqrep_client asking;
    v1::subscriber asked;
    v1::subscriber answers;
};

}  // namespace tolvan::vesk::tool

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include <tolvan/wire/hub_message.hpp>

namespace tolvan::vesk::tool {

/// A request and what became of it, as it was seen from outside.
struct seen_request {
    using clock = std::chrono::steady_clock;

    enum class fate {
        reply,
        nack,
        acknowledged,  ///< no reply was needed
        no_answer,     ///< not even an acknowledgement: nobody serves it
        no_reply,      ///< none in time after the last acknowledgement
        unreadable,    ///< nothing followed an answer that is none
        given_up       ///< its client has taken the reply topic for another request
    };

    std::string topic;        ///< SERVER.COMMAND
    std::string reply_topic;  ///< as answers carry it
    bool reply_needed = true;
    std::size_t request_size = 0;  ///< bytes of data, with the envelope
    clock::time_point asked_at{};
    std::optional<clock::duration> to_ack{};     ///< the first acknowledgement, if one came
    std::optional<clock::duration> to_answer{};  ///< the reply, the NACK or the final acknowledgement
    std::size_t answer_size = 0;                 ///< bytes of data of that
    fate how = fate::no_answer;
    std::string nack_text{};

    /// What the client calls it: what stands behind the reply topic's last ".".
    std::string_view id() const;

    bool has_failed() const { return how != fate::reply && how != fate::acknowledged; }
};

/// Pairs requests with their answers, among all messages of a bus in the order in which they were relayed.
class request_pairs {
  public:
    using clock = seen_request::clock;
    using receiver = std::function<void(const seen_request&)>;

    static constexpr std::chrono::seconds answer_patience{15};  ///< of every client, for the first answer
    static constexpr std::chrono::duration<double> usual_reply_patience{30};  ///< of a client, unless told
    static constexpr std::size_t most_in_flight = 65'536;
    static constexpr std::size_t most_topic_bytes = 64 * 1024 * 1024;  ///< of those in flight

    /// `on_end` is called for each request whose fate is known. `reply_patience` is how long a client waits
    /// for the reply after an acknowledgement.
    request_pairs(std::chrono::duration<double> reply_patience, receiver on_end)
        : patience(std::chrono::duration_cast<clock::duration>(reply_patience)), ended(std::move(on_end)) {}
    request_pairs(const request_pairs&) = delete;
    request_pairs& operator=(const request_pairs&) = delete;

    void feed(const wire::hub_message& message, clock::time_point now);

    /// Ends the requests that have waited too long. To be called now and then.
    void expire(clock::time_point now);

    /// Requests whose fate is open.
    std::size_t in_flight() const { return by_reply_topic.size(); }

    /// Requests that were not followed, because too many were in flight.
    std::uint64_t left_out() const { return not_followed; }

  private:
    struct pending {
        seen_request request;
        clock::time_point wait_began;
        bool is_answered = false;  ///< which of the two waits it is in
    };
    using wait = std::list<pending>;  ///< as long for each, and so in the order in which they end

    void begin(std::string_view topic, std::size_t size, std::string reply_topic, bool reply_needed,
               clock::time_point now);
    void take_answer(wait::iterator waiting, std::string_view data, clock::time_point now);
    void wait_for_reply(wait::iterator waiting, clock::time_point now);
    void end_with_answer(wait::iterator waiting, seen_request::fate how, std::size_t size,
                         clock::time_point now);
    void end(wait::iterator waiting);
    void expire(wait& waits, clock::time_point begun_before);

    const clock::duration patience;
    const receiver ended;
    wait unanswered, answered;
    std::unordered_map<std::string_view, wait::iterator> by_reply_topic;  ///< keys lie in the requests
    std::size_t topic_bytes = 0;
    std::uint64_t not_followed = 0;
};

}  // namespace tolvan::vesk::tool

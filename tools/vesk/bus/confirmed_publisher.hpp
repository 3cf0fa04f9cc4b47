#pragma once

#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <tolvan/vesk/toolkit/probe_pace.hpp>
#include <tolvan/vesk/toolkit/probe_topic.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/wire/tap.hpp>

#include "bus/bus_environment.hpp"
#include "bus/number_ranges.hpp"
#include "bus/session.hpp"
#include "bus/unconfirmed_messages.hpp"

namespace tolvan::vesk::tool {

/// Publishes messages, until each has been seen coming back from the hub or is known to be lost.
class confirmed_publisher {
  public:
    struct options {
        std::vector<std::string> seen{};  ///< topics, as sent, of which each message's begins with one
        seconds patience{5};  ///< for the first answer of the hub, and for the next message to come back
        bool resend = false;  ///< what is lost is sent again
    };

    struct callbacks {
        std::function<void()> progress;                  ///< there may be room, or nothing under way any more
        std::function<void(const number_ranges&)> lost;  ///< these were lost
        std::function<void(bool hub_answers)> gave_up;   ///< nothing has come back for the whole patience
    };

    /// Connects, and asks for an answer of the hub. Throws std::runtime_error for an endpoint that is
    /// none.
    confirmed_publisher(session& on, const common_options& common, options given, callbacks called);

    /// Whether one more message may be under way. Not before the hub has answered for the first time.
    bool has_room() const;

    /// Publishes a message. Their numbers ascend.
    void publish(numbered_message message);

    /// Whether nothing is under way: each message has come back, or is lost and not to be sent again.
    bool is_done() const { return unconfirmed.empty() && again.empty(); }

    /// What is under way.
    number_ranges under_way() const;

  private:
    using milliseconds = session::milliseconds;

    void see(const wire::hub_message& message);
    void see_message(const wire::hub_message& message);
    void see_probe(unconfirmed_messages::publication last);
    void lose(std::vector<numbered_message> lost);
    bool may_send_more() const;
    void send(numbered_message message);
    void send_again();
    void rest();
    void look();
    void look_later();
    milliseconds look_interval();
    milliseconds now() { return process.loop().now(); }

    session& process;
    const options chosen;
    const callbacks call;
    const milliseconds patience;
    const std::size_t queue = queue_limit();
    const std::size_t most_under_way;
    std::size_t since_rest = 0;
    session::timer resting;
    const toolkit::probe_topic probe;
    v1::publisher publisher;
    unconfirmed_messages unconfirmed;
    std::deque<numbered_message> again;  ///< lost, to be sent once more
    wire::tap tap;
    session::timer next_look;
    toolkit::probe_pace pace;  ///< until the hub is there
    unconfirmed_messages::publication oldest_at_last_look = 0;
    milliseconds progress_at;  ///< the last message came back, or the first of those under way went out
    milliseconds answered_at{0};
    bool hub_is_there = false;
};

}  // namespace tolvan::vesk::tool

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <tolvan/vesk/toolkit/probe_pace.hpp>
#include <tolvan/vesk/toolkit/probe_topic.hpp>
#include <tolvan/wire/sender.hpp>
#include <tolvan/wire/tap.hpp>

#include "observing/topic_set.hpp"
#include "terminal/event_process.hpp"
#include "terminal/hub_notes.hpp"

namespace tolvan::vesk::tool {

/// What a tap of this process is to be told. To be called before the process's first socket. Throws
/// std::runtime_error when the process lacks descriptors.
wire::tap::options tap_options(const common_options& common);

/// Says on stderr what is probably wrong with topics that somebody has asked for.
void tell_hints_about(const std::vector<std::string>& topics);

/// Looks at the bus from outside: a tap at the hub's subscription endpoint, and probes of its own that tell
/// when the hub knows the filters, and later, while nothing else comes, whether it is still there. Says on
/// stderr how it stands with the hub.
class observer {
  public:
    using milliseconds = event_process::milliseconds;

    struct callbacks {
        /// Each message once, however many topics it matches; its views are valid during the call. Probes of
        /// others are among them only for who asks for a topic of theirs.
        std::function<void(const wire::hub_message&)> message;
        std::function<void()> idle = {};   ///< no more input waits: time to flush
        std::function<void()> ready = {};  ///< the hub has all topics, after it had not
    };

    /// Connects. No topic, or an empty one, is everything. Messages come from the loop's next turn on, also
    /// before the hub knows all topics. Throws std::runtime_error for an endpoint that is none, or when the
    /// process lacks descriptors.
    observer(event_process& on, const common_options& common, const std::vector<std::string>& topics,
             callbacks called);

    /// Whether the hub is there and has all topics, as far as one knows: a hub that does not answer is found
    /// out after some seconds.
    bool hub_is_ready() const { return notes.is_ready(); }

    /// For a time-out, while the hub is not ready: what is missing.
    std::string what_is_missing() const;

    /// For how long the hub was away after it had been ready for the first time, up to now; what was
    /// published in that time may not have come. A hub that did not answer for a while, and then goes on with
    /// the same connection, was not away.
    milliseconds time_away() const;

  private:
    void see(const wire::hub_message& message);
    void see_probe(std::string_view topic);
    void see_connection();
    void see_loss();
    void probe_again();
    void look();
    void note_life();
    void note_loss(milliseconds since);
    milliseconds now() const { return process.loop().now(); }

    event_process& process;
    const common_options& common;
    const topic_set wanted;
    const callbacks call;
    hub_notes notes;
    const toolkit::probe_topic probes;
    toolkit::probe_topic::number connections = 0;
    std::string probe;  ///< the topic of this connection's probes; of none it is empty
    wire::tap tap;
    wire::sender sender;
    toolkit::probe_pace pace;
    event_process::timer next_probe;  ///< while this connection's first probe is not back
    event_process::timer next_look;   ///< afterwards
    bool heard = false;               ///< since the last look
    bool knows_filters = false;       ///< the hub, of this connection
    int silent_looks = 0;
    std::optional<milliseconds> away_since;
    milliseconds was_away{0};
};

}  // namespace tolvan::vesk::tool

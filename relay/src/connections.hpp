#pragma once

#include <map>
#include <string>
#include <vector>

#include <tolvan/wire/monitor.hpp>

#include "connection.hpp"
#include "report_queue.hpp"

namespace tolvan::relay {

/// The peers that are connected to one endpoint of the hub. To be used on the relaying thread.
class connections {
  public:
    /// To be made before `watched` is bound. Throws `zmq::error_t`.
    connections(zmq::context_t& context, zmq::socket_t& watched, bool publishers, report_queue& reports);

    /// Readable while connections have come or gone that `follow` has not seen.
    zmq::socket_ref readable() { return events.readable(); }

    /// Takes note of those that came and went, and reports them.
    void follow(steady::time_point now);

    /// Looks at every connection, if the last look is old enough to see a difference.
    void look(steady::time_point now);

    std::size_t count() const noexcept { return present.size(); }

    /// Whether any has stopped taking what the hub sends, and can still be cut.
    bool any_to_cut(steady::time_point now) const;

    /// Whether nobody is behind.
    bool all_keep_up(steady::time_point now) const;

    /// Reports as jammed those that have stopped taking what the hub sends, each once; when there are none,
    /// the one that is behind and was not reported, and has taken nothing for the longest; without one, one
    /// that was reported; when nobody is behind, a jam without a name.
    void report_jam(steady::time_point now);

    /// Cuts the connection that has taken nothing for the longest, and reports it. Without one that is
    /// stalled, one that is far behind, or with `any_will_do` behind at all. Tells whether it has cut any:
    /// not so soon after the one before.
    bool cut_the_slowest(steady::time_point now, bool any_will_do);

  private:
    void apply(const wire::connection_event& event, steady::time_point now);
    void add(int descriptor, steady::time_point now);
    void note_greeting();
    void remove(int descriptor, steady::time_point now);
    void look(steady::time_point now, steady::duration least_age);
    std::size_t not_surely_greeted() const;
    hub::report::event reason_of_end(const connection& gone, steady::time_point now) const;
    void report_jam_of(connection& slow);
    void report(hub::report::event what, const std::string& peer);

    /// The present connection for which `duration` is longest, and at least `least`; null without one.
    template <typename Duration, typename Least>
    connection* longest(Duration duration, Least least);

    const bool publishers;
    report_queue& reports;
    wire::monitor events;
    std::map<int, connection> present;  ///< by descriptor
    std::size_t handshakes = 0;         ///< under way; only their number is known
    steady::time_point looked, last_cut;
};

}  // namespace tolvan::relay

#pragma once

#include <optional>
#include <string>

#include <zmq.hpp>

namespace tolvan::wire {

/// What befell a connection of a socket.
struct connection_event {
    enum class kind {
        accepted,  ///< a peer has connected to a bound socket; its handshake is still to come
        greeted,   ///< a handshake has succeeded, of one of those that are under way: libzmq does not say
                   ///< which
        gone       ///< a connection has ended, whoever ended it
    };
    kind what;
    int descriptor = -1;  ///< libzmq's own, perhaps closed by now; -1 for `greeted`
};

/// Tells of the connections of a socket, in the order in which they come and go. To be used on the thread of
/// the socket, and to be made before that is bound or connected.
class monitor {
  public:
    /// `name` must be the context's only one. Throws `zmq::error_t`.
    monitor(zmq::context_t& context, zmq::socket_t& watched, const std::string& name);

    /// The next event, if there is one; does not wait. Throws `zmq::error_t`.
    std::optional<connection_event> next();

    /// Readable while events wait.
    zmq::socket_ref readable() { return events; }

  private:
    zmq::socket_t events;
};

}  // namespace tolvan::wire

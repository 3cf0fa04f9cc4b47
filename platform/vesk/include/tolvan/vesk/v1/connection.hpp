#pragma once

#include <memory>
#include <string>

#include <tolvan/event_loop_v1.hpp>
#include <tolvan/vesk/v1/conf.hpp>

namespace tolvan::vesk::v1 {

/// A process's connection to the bus: loads a transport and installs its backends. From then on every bus
/// object of the process works, also after the connection object is gone.
class connection {
  public:
    class impl;

    /// Loads the transport that `conf.backend` names and initialises it on `loop`. The library stays loaded
    /// for the life of the process. Throws std::runtime_error that names the library and the symbol when
    /// there is no such library or it is no transport, and what the transport throws when it cannot
    /// initialise; backends that it had installed by then stay. Throws std::invalid_argument without a loop.
    ///
    /// A second connection replaces the backends of the first: their subscriptions and requests are gone.
    /// When it fails half-way, make another one: the backends of two connections do not work together.
    ///
    /// After a `fork` the bus belongs to the parent. The child may end, by `exit` too, or start another
    /// program by `exec`; it must neither use the bus, nor connect, nor run the loop.
    connection(conf_t conf, std::shared_ptr<event_loop_v1> loop);
    ~connection();

    /// Tells the transport what the process is called; it may ignore it.
    void set_service_name(const std::string& name);

  private:
    std::unique_ptr<impl> transport;
};

/// A transport's side of a connection, made by the library's one exported function.
class connection::impl {
  public:
    impl() = default;
    impl(const impl&) = delete;
    impl& operator=(const impl&) = delete;
    virtual ~impl();

    /// Creates the four backends and installs each in its slot. Throws std::runtime_error when it cannot;
    /// what was installed by then stays.
    virtual void initialize(conf_t&& conf) = 0;
    virtual void set_service_name(const std::string& name) = 0;

    void set_event_loop(std::shared_ptr<event_loop_v1> loop) { event_loop = std::move(loop); }

  protected:
    std::shared_ptr<event_loop_v1> event_loop;
};

/// Empties the backend slots, the one installed last first: outstanding requests and subscriptions end
/// without a call. Runs by itself at the end of the process that has connected, not at that of a forked
/// child. What their callbacks have captured is destroyed meanwhile; a destructor that publishes finds no
/// backend then, and must not let that exception out.
void release_backends();

}  // namespace tolvan::vesk::v1

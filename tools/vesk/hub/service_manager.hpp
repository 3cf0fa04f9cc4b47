#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::vesk::tool {

/// Whoever has started this process and wants to hear how it fares, as systemd does of a service of the type
/// "notify": by datagrams to the socket that NOTIFY_SOCKET names. Without that variable nobody is told
/// anything. Never waits; what cannot be delivered is said on stderr. To be called on the main thread.
class service_manager {
  public:
    using seconds = std::chrono::duration<double>;

    /// Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID. Throws std::system_error.
    service_manager();

    void say_ready() const { say("READY=1"); }
    void say_stopping() const { say("STOPPING=1"); }

    /// How often to call `watch`, so that a single omission ends nothing; 0 when nobody waits for it.
    seconds watch_interval() const { return interval; }

    /// Says that all is well if the relay has made a turn since the last call.
    void watch(std::uint64_t turns);

  private:
    void say(const std::string& state) const;

    std::string socket_path;
    wire::descriptor sender;  ///< kept, for later there may be no other
    seconds interval{0};
    std::uint64_t seen_turns = 0;
};

}  // namespace tolvan::vesk::tool

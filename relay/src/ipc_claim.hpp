#pragma once

#include <filesystem>
#include <optional>

#include <sys/types.h>

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::relay {

/// The group whose members may connect beside the owner, if there is one.
using ipc_group = std::optional<gid_t>;

/// Holds the lock of a file that it makes, and removes the file at the end.
class lock_file {
  public:
    /// Does not wait. Throws `std::runtime_error` when another holds the lock, naming its process, or the
    /// file cannot be made.
    explicit lock_file(const std::filesystem::path& at);
    lock_file(const lock_file&) = delete;
    lock_file& operator=(const lock_file&) = delete;
    ~lock_file();

  private:
    std::filesystem::path path;
    wire::descriptor held;
};

/// The sole right to bind an ipc socket at a path. libzmq's bind replaces whatever it finds there, the socket
/// of a live hub too, so that hubs agree among themselves by a lock file beside the socket.
class ipc_claim {
  public:
    /// Makes or checks the folder, then takes the lock. A socket that a killed hub left is no obstacle.
    /// Throws `std::runtime_error` with the reason alone; the caller adds the endpoint.
    ipc_claim(const std::filesystem::path& at, ipc_group members);
    ipc_claim(const ipc_claim&) = delete;
    ipc_claim& operator=(const ipc_claim&) = delete;

    /// Lets those connect who may, whatever the umask was when the socket was bound.
    /// Throws `std::runtime_error`.
    void admit() const;

    /// Removes the socket. It must be closed by then: this gives the path away.
    ~ipc_claim();

  private:
    std::filesystem::path socket;
    ipc_group group;
    lock_file lock;
};

}  // namespace tolvan::relay

#pragma once

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tolvan::relay {

/// Repeats a libzmq call for as long as a signal interrupts it; returns its result.
template <typename Call>
int uninterrupted(Call call) {
    int result = call();
    while (result == -1 && errno == EINTR) result = call();
    return result;
}

/// Owns a libzmq context. All sockets made from it must be gone before it is.
class zmq_context {
  public:
    /// Throws `std::runtime_error`.
    zmq_context();

    /// Makes every call that waits on one of the context's sockets fail with ETERM, now and from now on.
    /// May be called on any thread.
    void shut_down() noexcept;

    void* get() const noexcept { return handle.get(); }

  private:
    /// Waits until libzmq's own thread has let go of the closed sockets and of what they were bound to.
    struct terminate {
        void operator()(void* context) const noexcept;
    };
    std::unique_ptr<void, terminate> handle;
};

/// Owns a libzmq socket that drops unsent messages when it is closed (a linger of 0, unless it is set to
/// another). Every member but the destructor throws `std::runtime_error` with libzmq's reason.
class zmq_socket {
  public:
    zmq_socket(const zmq_context& context, int type);

    void set(int option, int value);
    void set(int option, std::int64_t value);
    void subscribe_to_everything();

    void bind(const std::string& endpoint);
    void connect(const std::string& endpoint);

    /// The endpoint bound last, with the port that a `*` became.
    std::string last_endpoint() const;

    /// Sends a message of one frame; waits for a place in the queue.
    void send(std::string_view frame);

    /// Waits for one frame that holds a 64-bit number of this machine.
    std::uint64_t receive_number();

    void* get() const noexcept { return handle.get(); }

  private:
    struct close {
        void operator()(void* socket) const noexcept;
    };
    std::unique_ptr<void, close> handle;
};

}  // namespace tolvan::relay

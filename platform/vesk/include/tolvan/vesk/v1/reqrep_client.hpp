#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include <tolvan/sedes/v1/json.hpp>
#include <tolvan/vesk/v1/publisher.hpp>

namespace tolvan::vesk::v1 {

/// Sends requests to servers and gets their answers. Its destruction cancels its outstanding requests.
///
/// Everything is called, and every callback runs, on the event loop's thread. Callbacks may call anything of
/// the bus, the destruction of this object included.
class reqrep_client : public publisher {
  public:
    class backend;

    /// How a request ends that no answer came for in time: 15 s for the first answer, after an
    /// acknowledgement as long as `set_timeout` says.
    class request_timeout : public std::runtime_error {
      public:
        explicit request_timeout(unsigned short id);
    };

    /// Called once with the outcome: the reply's JSON text, valid during the call, or the failure, or, for a
    /// request without reply that the server has accepted, neither.
    using reply_callback = std::function<void(const std::string* reply, std::exception_ptr failure)>;

    reqrep_client() = default;
    ~reqrep_client();

    /// Sends `payload`, one JSON value or an empty text for none, to the `command` of the server whose
    /// identity is `target`. The callback must not be empty: that is logged, and calling it throws
    /// std::bad_function_call when the outcome is there. Returns the id of the request; 0 when it could
    /// not be sent, and then the callback has already been called with the failure. Throws std::logic_error
    /// without an installed backend.
    unsigned short request(const std::string& target, const std::string& command, const std::string& payload,
                           bool reply_needed, reply_callback&& callback);

    /// The same with a record as payload.
    template <sedes::v1::described Record>
    unsigned short request(const std::string& target, const std::string& command, const Record& payload,
                           bool reply_needed, reply_callback&& callback) {
        return request(target, command, sedes::v1::serialize_to_json_string(payload), reply_needed,
                       std::move(callback));
    }

    /// Ends a request without calling its callback. An id that is not outstanding is logged. Does nothing
    /// without an installed backend.
    void cancel_request(unsigned short id);

    /// Ends all requests of this object in the same way.
    void cancel_all_requests();

    /// How long every client of the process waits for the answer after an acknowledgement, from the next
    /// acknowledgement on; 30 s at first. Throws std::logic_error without an installed backend.
    static void set_timeout(std::chrono::milliseconds timeout);
};

/// What carries the requests of every client of the process.
class reqrep_client::backend {
  public:
    backend() = default;
    backend(const backend&) = delete;
    backend& operator=(const backend&) = delete;
    virtual ~backend();

    /// Ends all requests of `client` without calling their callbacks.
    virtual void cancel_all_requests(reqrep_client* client) = 0;

    /// Ends the request without calling its callback; logs an unknown id.
    virtual void cancel_request(reqrep_client* client, unsigned short id) = 0;

    /// Issues a request. Returns its id, or 0 after it has called the callback with the failure.
    virtual unsigned short request(reqrep_client* client, const std::string& target, const std::string& cmd,
                                   const std::string& payload, bool reply_needed,
                                   reply_callback&& callback) = 0;

    /// Sets how long to wait for the answer after each acknowledgement from now on.
    virtual void set_timeout(std::chrono::milliseconds value) = 0;

    /// The installed backend; empty before the first connection and after `release_backends`.
    static std::shared_ptr<backend> instance;
};

}  // namespace tolvan::vesk::v1

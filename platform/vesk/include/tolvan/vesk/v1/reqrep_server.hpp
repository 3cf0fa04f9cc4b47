#pragma once

#include <functional>
#include <memory>
#include <string>
#include <typeinfo>
#include <unordered_map>

#include <tolvan/sedes/v1/json.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace tolvan::vesk::v1 {

/// Answers requests for the commands that it has registered under its identity. Its destruction unregisters.
///
/// Set the identity with `set_uuid` before the first registration; it must not contain "." or ":". Everything
/// is called, and every handler runs, on the event loop's thread. Handlers may call anything of the bus, the
/// destruction of this object included.
class reqrep_server : public subscriber, public publisher {
  public:
    class backend;
    class request;
    class request_impl_base;
    class server_impl_base;

    /// A decoded payload together with the function that deletes it.
    using payload_ptr = std::unique_ptr<void, void (*)(void*)>;
    /// Decodes the JSON text of a payload; throws when it does not fit.
    using payload_deserializer = payload_ptr (*)(std::string* text);
    using command_handler = std::function<void(request&& received, payload_ptr payload)>;

    reqrep_server() = default;
    ~reqrep_server();

    /// Registers `handler` for `command`; a second registration replaces the first. `reply_needed` says
    /// whether its requests get a reply beside the acknowledgement. Without a deserializer the handler gets
    /// no payload. What the deserializer or the handler throws goes to the client. An identity that no
    /// request can reach is logged. Throws std::logic_error without an installed backend.
    void set_command_handler(const std::string& command, bool reply_needed, payload_deserializer deserializer,
                             command_handler&& handler);

    /// The same with a payload that serialisation can read: a record, or any JSON value as opaque_json_block.
    template <typename Payload>
    void set_command_handler(const std::string& command, bool reply_needed,
                             std::function<void(request&& received, Payload&& payload)> handler);

    /// Unregisters all commands, and ends all subscriptions made through this object. Requests that were
    /// received before cannot be answered any more. Does nothing without an installed backend.
    void unset_all_handlers();

    /// Expires when this object is destroyed: for a backend in whose call that happens.
    std::weak_ptr<const void> lifetime() const { return alive; }

  private:
    std::shared_ptr<const void> alive = std::make_shared<char>();
};

/// One received request. Can be kept and answered later, and more than once; copies answer the same request.
/// One that nobody answers sends nothing; one that was moved from throws std::logic_error when it is used.
class reqrep_server::request {
  public:
    explicit request(std::shared_ptr<request_impl_base> received);

    /// Sends `json`, one JSON value other than null. Throws bad_deserialization_source when it is not JSON,
    /// std::length_error when it is nested deeper than 255 levels, std::logic_error without an installed
    /// backend.
    void reply(const std::string& json) const;

    /// Sends a record as the reply.
    template <sedes::v1::described Record>
    void reply(const Record& record) const {
        reply(sedes::v1::serialize_to_json_string(record));
    }

    /// Sends a failure: the exception's type and its text.
    void fail(const std::exception& failure) const;

    /// Where the answer goes: it tells one request from another.
    const std::string& get_reply_topic() const;

  private:
    std::shared_ptr<request_impl_base> shared() const;

    std::shared_ptr<request_impl_base> received;
};

/// A backend's record of one request. Destroyed through the shared pointer it was made with.
class reqrep_server::request_impl_base {
  public:
    virtual const std::string& get_reply_topic() const = 0;

    /// The state of the server that has received the request.
    std::weak_ptr<server_impl_base> server;

  protected:
    request_impl_base() = default;
    ~request_impl_base() = default;
};

/// A backend's state of one server. Destroyed through the shared pointer it was made with.
class reqrep_server::server_impl_base {
  protected:
    server_impl_base() = default;
    ~server_impl_base() = default;
};

/// What carries the requests and answers of every server of the process.
class reqrep_server::backend {
  public:
    backend() = default;
    backend(const backend&) = delete;
    backend& operator=(const backend&) = delete;
    virtual ~backend();

    /// Sends one answer to a request of this backend: a reply when there is a payload, else a failure when
    /// there is a `what`, else an acknowledgement. Throws what building or publishing it throws.
    virtual void reply(std::shared_ptr<request_impl_base>&& request, const std::string* payload,
                       const std::type_info* type, const char* what) = 0;

    /// Registers one command of `rrs`.
    virtual void set_command_handler(reqrep_server* rrs, const std::string& command, bool reply_needed,
                                     payload_deserializer deserializer, command_handler&& handler) = 0;

    /// Drops the state of `rrs` and revokes all its subscriptions.
    virtual void unset_all_handlers(reqrep_server* rrs) = 0;

    /// The installed backend; empty before the first connection and after `release_backends`.
    static std::shared_ptr<backend> instance;

  protected:
    /// The state of `rrs`, made with `rrs` as its argument when there is none yet. Every call is for the same
    /// type of state.
    template <typename Server>
    std::shared_ptr<Server> server_by_rrs_add_if_missing(reqrep_server* rrs) {
        if (const auto known = servers.find(rrs); known != servers.end())
            return std::static_pointer_cast<Server>(known->second);
        auto made = std::make_shared<Server>(rrs);
        servers.emplace(rrs, made);
        return made;
    }

    /// The only strong owner of every server's state.
    std::unordered_map<reqrep_server*, std::shared_ptr<server_impl_base>> servers;
};

template <typename Payload>
void reqrep_server::set_command_handler(const std::string& command, bool reply_needed,
                                        std::function<void(request&& received, Payload&& payload)> handler) {
    const payload_deserializer deserializer = [](std::string* text) {
        auto decoded = std::make_unique<Payload>();
        sedes::v1::deserialize_from_json_string(*text, decoded.get());
        return payload_ptr(decoded.release(), [](void* payload) {
            std::default_delete<Payload>()(static_cast<Payload*>(payload));
        });
    };
    set_command_handler(command, reply_needed, deserializer,
                        [handler = std::move(handler)](request&& received, payload_ptr payload) {
                            handler(std::move(received), std::move(*static_cast<Payload*>(payload.get())));
                        });
}

}  // namespace tolvan::vesk::v1

#pragma once

#include <concepts>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <tolvan/sedes/v1/json.hpp>
#include <tolvan/vesk/toolkit/call_checks.hpp>
#include <tolvan/vesk/toolkit/call_failures.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>

/// Publications, requests and answers as records and other types that serialisation knows. Everything is
/// called, and all callbacks run, on the event loop's thread; callbacks may call anything of the bus.
namespace tolvan::vesk::toolkit {

namespace detail {

template <typename Reply>
struct on_reply {
    using type = std::function<void(Reply&& reply)>;
};

template <>
struct on_reply<void> {
    using type = std::function<void()>;
};

}  // namespace detail

/// Called with the decoded reply; without an argument where none is expected.
template <typename Reply>
using reply_handler = typename detail::on_reply<Reply>::type;

/// Called with what a request has failed with: request_refused, reqrep_client::request_timeout,
/// reply_undecodable, or whatever has kept it from being sent.
using failure_handler = std::function<void(const std::exception& failure)>;

namespace detail {

template <typename Reply>
void tell_reply(const std::string* json, const reply_handler<Reply>& on_reply,
                const failure_handler& on_failure) {
    if constexpr (std::is_void_v<Reply>) {
        on_reply();
    } else {
        Reply decoded{};
        try {
            sedes::v1::deserialize_from_json_string(json != nullptr ? *json : "null", &decoded);
        } catch (const sedes::v1::bad_deserialization_source& error) {
            return on_failure(reply_undecodable(error.what()));
        }
        on_reply(std::move(decoded));
    }
}

}  // namespace detail

/// Publishes `record` as JSON. Throws what serialisation throws, std::logic_error without an installed
/// backend.
template <typename Record>
void publish(v1::publisher& publisher, const std::string& topic, const Record& record) {
    publisher.publish(topic, sedes::v1::serialize_to_json_string(record));
}

/// Sends `record` as a request to the `command` of the server whose identity is `server`, and calls exactly
/// one of the callbacks with its outcome, once; neither when it is cancelled, also by the end of the client.
/// `request<void>` is a request whose server gives no reply: `on_reply` means that the server has accepted
/// it, before its handler ran.
///
/// Returns the id of the request, for `reqrep_client::cancel_request`; 0 when it could not be sent, and then
/// `on_failure` has already been called. Throws std::invalid_argument for an empty callback, for a server
/// that is empty or has "." or ":" in it, and for a command with ":"; what serialisation throws;
/// std::logic_error without an installed backend.
template <typename Reply, typename Record>
unsigned short request(v1::reqrep_client& client, const std::string& server, const std::string& command,
                       const Record& record, reply_handler<Reply> on_reply, failure_handler on_failure) {
    detail::require_address(server, command);
    detail::require_callback(on_reply, "request " + server + "." + command);
    detail::require_callback(on_failure, "request " + server + "." + command);
    const auto sent = std::make_shared<bool>(false);
    const auto id =
        client.request(server, command, sedes::v1::serialize_to_json_string(record), !std::is_void_v<Reply>,
                       [sent, on_reply = std::move(on_reply), on_failure = std::move(on_failure)](
                           const std::string* json, const std::exception_ptr& failure) {
                           if (failure) return detail::tell_failure(failure, *sent, on_failure);
                           detail::tell_reply<Reply>(json, on_reply, on_failure);
                       });
    *sent = true;
    return id;
}

/// Answers requests for `command` with what `handler` returns for their decoded payload. An exception out of
/// the handler, or a payload that is no `Record`, refuses the request with that exception's text. A handler
/// that returns nothing is one for requests without reply: they are accepted before it runs, and its
/// exceptions are logged only.
///
/// Set the server's identity before. A second handler of a command replaces the first. Throws
/// std::invalid_argument for an empty handler, for an identity that is empty or has "." or ":" in it, and for
/// a command with ":"; std::logic_error without an installed backend.
template <typename Record, typename Handler>
requires std::invocable<Handler&, Record&&>
void serve(v1::reqrep_server& server, const std::string& command, Handler handler) {
    using reply = std::invoke_result_t<Handler&, Record&&>;
    detail::require_address(server.get_uuid_or_luid(), command);
    std::function<reply(Record &&)> answer(std::move(handler));
    detail::require_callback(answer, "serve " + server.get_uuid_or_luid() + "." + command);
    server.set_command_handler<Record>(
        command, !std::is_void_v<reply>,
        [answer = std::move(answer)](v1::reqrep_server::request&& received, Record&& asked) {
            if constexpr (std::is_void_v<reply>)
                answer(std::move(asked));
            else
                received.reply(sedes::v1::serialize_to_json_string(answer(std::move(asked))));
        });
}

}  // namespace tolvan::vesk::toolkit

// A server's state belongs to the server map alone; command callbacks and requests know it weakly, intake and
// answers hold on to it for the duration of one call. A command handler may unregister its server or replace
// this backend: the request that is being handled is still answered. It may even destroy its server: then the
// state no longer stands for one, and answers are refused.
#include <stdexcept>
#include <utility>

#include <tolvan/lumo/v1/log.hpp>
#include <tolvan/vesk/hub/reqrep_client_impl.hpp>
#include <tolvan/vesk/hub/reqrep_server_impl.hpp>

namespace tolvan::vesk::hub {

namespace {

constexpr const char* source_file = "src/hub/reqrep_server_impl";

using reply_t = reqrep_client_impl::reply_t;
using payload_ptr = v1::reqrep_server::payload_ptr;

payload_ptr decode_payload(const sedes::v1::optional<sedes::v1::opaque_json_block>& payload,
                           v1::reqrep_server::payload_deserializer deserializer) {
    if (deserializer == nullptr) return {nullptr, [](void*) {}};
    std::string text = sedes::v1::serialize_to_json_string(payload);
    return deserializer(&text);
}

void fill_nack(reply_t& body, const std::type_info* type, const char* what) {
    body.xWhat = std::string(what);
    if (type != nullptr) body.xTypeId = std::string(type->name());
}

}  // namespace

void reqrep_server_impl::set_command_handler(v1::reqrep_server* rrs, const std::string& command,
                                             bool reply_needed, payload_deserializer deserializer,
                                             command_handler&& handler) {
    const std::string server_id = rrs->get_uuid_or_luid();
    LUMO_LOG(lumo::v1::trace, source_file, "set_command_handler",
             "server_id={} registering handler for command={}", server_id, command);
    forget_former_server_at(rrs);
    const std::weak_ptr<server_impl> server = server_by_rrs_add_if_missing<server_impl>(rrs);
    rrs->subscribe<std::shared_ptr<request_impl>>(
        server_id + "." + command, nullptr,
        [server, reply_needed, deserializer, handler = std::move(handler)](
            const std::string& topic, std::shared_ptr<request_impl> request) {
            request->server = server;
            enqueue_request(topic, std::move(request), reply_needed, deserializer, handler);
        });
}

// A server that was destroyed while no backend was installed has left its state behind.
void reqrep_server_impl::forget_former_server_at(v1::reqrep_server* rrs) {
    const auto known = servers.find(rrs);
    if (known != servers.end() && static_cast<const server_impl&>(*known->second).alive.expired())
        servers.erase(known);
}

void reqrep_server_impl::unset_all_handlers(v1::reqrep_server* rrs) {
    servers.erase(rrs);
    LUMO_LOG(lumo::v1::trace, source_file, "unset_all_handlers", "unregistering server_id={}",
             rrs->get_uuid_or_luid());
    rrs->revoke_subscriptions();
}

void reqrep_server_impl::enqueue_request(const std::string& topic, std::shared_ptr<request_impl> request,
                                         bool reply_needed, const payload_deserializer& deserializer,
                                         const command_handler& handler) {
    const auto server = lock_server(*request);
    if (!server) {
        LUMO_LOG(lumo::v1::warning, source_file, "enqueue_request",
                 "request received for a reqrep_server that’s gone");
        return;
    }
    try {
        take_in(*server->rrs, topic, request, reply_needed, deserializer, handler);
    } catch (const std::exception& caught) {
        LUMO_LOG(lumo::v1::error, source_file, "enqueue_request", "exception caught ({}): {}", typeid(caught),
                 caught.what());
        nack(std::move(request), &typeid(caught), caught.what());
    } catch (...) {
        LUMO_LOG(lumo::v1::error, source_file, "enqueue_request",
                 "exception caught (no more info available)");
        nack(std::move(request), nullptr, "unknown exception");
    }
}

void reqrep_server_impl::take_in(const v1::reqrep_server& rrs, const std::string& topic,
                                 const std::shared_ptr<request_impl>& request, bool reply_needed,
                                 const payload_deserializer& deserializer, const command_handler& handler) {
    const std::string server_id = rrs.get_uuid_or_luid();
    LUMO_LOG(lumo::v1::trace, source_file, "enqueue_request",
             "server_id={} received request with reply topic={}", server_id, request->reply_topic);
    if (!accept_topic(server_id, topic, request)) return;
    reconcile_reply_needed(*request, reply_needed);
    payload_ptr payload = decode_payload(request->payload, deserializer);
    ack(request);
    v1::reqrep_server::request received(request);
    handler(std::move(received), std::move(payload));
}

// The command is what follows the identity under which it was registered. NACKs what was not sent to this
// server.
bool reqrep_server_impl::accept_topic(const std::string& server_id, const std::string& topic,
                                      const std::shared_ptr<request_impl>& request) {
    const std::size_t first_dot = topic.find('.');
    if (first_dot == std::string::npos) {
        LUMO_LOG(lumo::v1::warning, source_file, "enqueue_request",
                 "server_id={} received request with malformed topic=“{}”; NACKing", server_id, topic);
        nack(std::shared_ptr(request), &typeid(std::runtime_error), "malformed topic");
        return false;
    }
    const std::string registered_id = topic.substr(0, first_dot);
    if (registered_id != server_id) {
        LUMO_LOG(lumo::v1::warning, source_file, "enqueue_request",
                 "received request for a server that changed identification from “{}” to “{}” after setting "
                 "command handler – bug in your server code? NACKing",
                 registered_id, server_id);
        nack(std::shared_ptr(request), &typeid(std::logic_error), "internal dispatching error");
        return false;
    }
    request->cmd = topic.substr(first_dot + 1);
    return true;
}

void reqrep_server_impl::reconcile_reply_needed(request_impl& request, bool registered) {
    if (request.reply_needed == registered) return;
    LUMO_LOG(lumo::v1::warning, source_file, "enqueue_request",
             "client’s knowledge of cmd={} reply_needed is wrong ({} instead of {}); please fix client",
             request.cmd, request.reply_needed, registered);
    request.reply_needed = registered;
}

void reqrep_server_impl::reply(std::shared_ptr<request_impl_base>&& request, const std::string* payload,
                               const std::type_info* type, const char* what) {
    answer(std::static_pointer_cast<request_impl>(std::move(request)), payload, type, what);
}

void reqrep_server_impl::ack(std::shared_ptr<request_impl> request) {
    answer(std::move(request), nullptr, nullptr, nullptr);
}

void reqrep_server_impl::nack(std::shared_ptr<request_impl>&& request, const std::type_info* type,
                              const char* what) noexcept {
    try {
        answer(std::move(request), nullptr, type, what);
    } catch (...) {  // has been logged, and the client will time out
    }
}

void reqrep_server_impl::answer(std::shared_ptr<request_impl> request, const std::string* payload,
                                const std::type_info* type, const char* what) {
    const auto server = lock_server(*request);
    if (!server) {
        LUMO_LOG(lumo::v1::error, source_file, "reply",
                 "using request after server that received it is gone");
        return;
    }
    const std::string server_id = server->rrs->get_uuid_or_luid();
    const char* label = "reply|N?ACK";
    try {
        reply_t body;
        if (payload != nullptr) {
            label = "reply";
            LUMO_LOG(lumo::v1::trace, source_file, "reply",
                     "server_id={} issuing actual reply for reply topic={} and cmd={}", server_id,
                     request->reply_topic, request->cmd);
            body.payload = sedes::v1::opaque_json_block::from_string(*payload);
        } else {
            label = what != nullptr ? "NACK" : "ACK";
            if (what != nullptr) fill_nack(body, type, what);
            LUMO_LOG(lumo::v1::trace, source_file, "reply",
                     "server_id={} issuing {} for reply topic={} and cmd={}", server_id, label,
                     request->reply_topic, request->cmd);
        }
        server->rrs->publish(request->reply_topic, sedes::v1::serialize_to_json_string(body));
    } catch (const std::exception& caught) {
        LUMO_LOG(lumo::v1::error, source_file, "reply",
                 "server_id={} could not {} for reply topic={} and cmd={}: {}", server_id, label,
                 request->reply_topic, request->cmd, caught.what());
        throw;
    } catch (...) {
        LUMO_LOG(lumo::v1::error, source_file, "reply",
                 "server_id={} could not {} for reply topic={} and cmd={}; no more info available", server_id,
                 label, request->reply_topic, request->cmd);
        throw;
    }
}

// Nothing when the server has unregistered or is destroyed.
std::shared_ptr<reqrep_server_impl::server_impl> reqrep_server_impl::lock_server(
    const request_impl& request) {
    auto server = std::static_pointer_cast<server_impl>(request.server.lock());
    return server && !server->alive.expired() ? server : nullptr;
}

}  // namespace tolvan::vesk::hub

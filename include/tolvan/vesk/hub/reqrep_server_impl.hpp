#pragma once

#include <memory>
#include <string>
#include <typeinfo>

#include <tolvan/sedes/v1/json.hpp>
#include <tolvan/sedes/v1/opaque_json_block.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>

namespace tolvan::vesk::hub {

/// Carries the requests to, and the answers from, every server of the process: receives through the server's
/// own subscriptions and answers through its own publications. Everything runs on the event loop's thread.
class reqrep_server_impl final : public v1::reqrep_server::backend {
  public:
    using request_impl_base = v1::reqrep_server::request_impl_base;
    using payload_deserializer = v1::reqrep_server::payload_deserializer;
    using command_handler = v1::reqrep_server::command_handler;

    reqrep_server_impl() = default;

    void reply(std::shared_ptr<request_impl_base>&& request, const std::string* payload,
               const std::type_info* type, const char* what) override;
    void set_command_handler(v1::reqrep_server* rrs, const std::string& command, bool reply_needed,
                             payload_deserializer deserializer, command_handler&& handler) override;
    void unset_all_handlers(v1::reqrep_server* rrs) override;

  private:
    /// The state of one server.
    struct server_impl final : v1::reqrep_server::server_impl_base {
        explicit server_impl(v1::reqrep_server* server) : rrs(server), alive(server->lifetime()) {}

        v1::reqrep_server* rrs;
        std::weak_ptr<const void> alive;  ///< expired: `rrs` points to nothing any more
    };

    /// One received request.
    struct request_impl final : v1::reqrep_server::request_impl_base {
        const std::string& get_reply_topic() const override { return reply_topic; }

        static constexpr auto description() {
            return sedes::v1::composite(sedes::v1::plain("replyTopic", &request_impl::reply_topic),
                                        sedes::v1::plain("replyNeeded", &request_impl::reply_needed),
                                        sedes::v1::optional_member("payload", &request_impl::payload));
        }

        sedes::v1::optional<sedes::v1::opaque_json_block> payload;
        std::string reply_topic;
        std::string cmd;
        bool reply_needed = false;
    };

    void forget_former_server_at(v1::reqrep_server* rrs);

    // Intake and answers need the request alone, no backend: the handler may have replaced this one.
    static void enqueue_request(const std::string& topic, std::shared_ptr<request_impl> request,
                                bool reply_needed, const payload_deserializer& deserializer,
                                const command_handler& handler);
    static void take_in(const v1::reqrep_server& rrs, const std::string& topic,
                        const std::shared_ptr<request_impl>& request, bool reply_needed,
                        const payload_deserializer& deserializer, const command_handler& handler);
    static bool accept_topic(const std::string& server_id, const std::string& topic,
                             const std::shared_ptr<request_impl>& request);
    static void reconcile_reply_needed(request_impl& request, bool registered);

    static void ack(std::shared_ptr<request_impl> request);
    static void nack(std::shared_ptr<request_impl>&& request, const std::type_info* type,
                     const char* what) noexcept;
    static void answer(std::shared_ptr<request_impl> request, const std::string* payload,
                       const std::type_info* type, const char* what);

    static std::shared_ptr<server_impl> lock_server(const request_impl& request);
};

}  // namespace tolvan::vesk::hub

#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <tolvan/event_loop_v1.hpp>
#include <tolvan/sedes/v1/json.hpp>
#include <tolvan/sedes/v1/opaque_json_block.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace tolvan::vesk::hub {

/// Carries the requests of every client of the process: publishes each through its client, receives the
/// answers through a subscriber of its own and watches each request with a timer. Lives in a std::shared_ptr;
/// everything runs on the event loop's thread.
class reqrep_client_impl final : public v1::reqrep_client::backend,
                                 public std::enable_shared_from_this<reqrep_client_impl> {
  public:
    using request_callback = std::function<void(const std::string*, std::exception_ptr)>;

    /// One answer, as it travels. Without payload and without error it is an acknowledgement.
    struct reply_t {
        sedes::v1::optional<sedes::v1::opaque_json_block> payload;
        sedes::v1::optional<std::string> xTypeId;  ///< name() of the error's type
        sedes::v1::optional<std::string> xWhat;    ///< text of the error; makes the answer a NACK

        static constexpr auto description() {
            return sedes::v1::composite(sedes::v1::optional_member("payload", &reply_t::payload),
                                        sedes::v1::optional_member("xTypeId", &reply_t::xTypeId),
                                        sedes::v1::optional_member("xWhat", &reply_t::xWhat));
        }
    };

    explicit reqrep_client_impl(std::shared_ptr<event_loop_v1> loop);

    void cancel_all_requests(v1::reqrep_client* client) override;
    void cancel_request(v1::reqrep_client* client, unsigned short id) override;
    unsigned short request(v1::reqrep_client* client, const std::string& target, const std::string& cmd,
                           const std::string& payload, bool reply_needed,
                           request_callback&& callback) override;
    void set_timeout(std::chrono::milliseconds value) override;

  private:
    struct outstanding_request_t {
        std::string pub_topic;
        request_callback callback;
        v1::reqrep_client* client = nullptr;
        event_loop_v1::holder<timer_impl_base> timer;
        bool reply_needed = false;
        std::uint64_t serial = 0;  ///< tells it from a later one with the same id
    };
    using request_table = std::unordered_map<unsigned short, outstanding_request_t>;

    /// One request for as long as it is being issued.
    struct issue_t {
        unsigned short id;
        std::uint64_t serial;
    };

    void subscribe_to_replies();
    issue_t allocate_id();
    void make_room_for_cancelled();
    void destroy_leaving(std::size_t until);
    outstanding_request_t& enlist(v1::reqrep_client* client, unsigned short id);
    void issue(const issue_t& issued, const std::string& payload);
    request_table::iterator find_issued(const issue_t& issued);
    bool withdraw(const issue_t& issued, request_callback& callback);
    std::string reply_topic_of(unsigned short id) const;
    void start_timer(request_table::iterator waiting, std::chrono::milliseconds delay);

    void reply_notification(const std::string& topic);
    void reply_received(const std::string& topic, reply_t&& reply);
    void timeout_expired(unsigned short id);
    request_table::iterator request_itr_from_reply_topic(const std::string& topic, const char* what);
    request_callback discard_outstanding_request(request_table::iterator ended);
    void forget_id(v1::reqrep_client* client, unsigned short id);

    std::shared_ptr<event_loop_v1> event_loop;
    v1::subscriber reply_subscriber;
    std::chrono::milliseconds timeout;
    request_table outstanding_requests;
    std::unordered_map<v1::reqrep_client*, std::list<unsigned short>> requests_by_client;  ///< oldest first
    unsigned short next_request_id = 0;
    bool reply_subscription_done = false;
    std::uint64_t last_serial = 0;
    /// What is being destroyed, with room for all outstanding requests: cancelling them takes no memory.
    std::vector<request_table::node_type> leaving;
};

}  // namespace tolvan::vesk::hub

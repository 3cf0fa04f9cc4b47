// A request is in both tables from before its publication until its outcome is known. It is taken out of both
// before its callback runs, and nothing of the backend is touched after that: the callback may issue
// requests, cancel others, or replace the backend.
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <utility>

#include <tolvan/lumo/v1/log.hpp>
#include <tolvan/uuid_v1.hpp>
#include <tolvan/vesk/hub/plain_exception.hpp>
#include <tolvan/vesk/hub/reqrep_client_impl.hpp>

namespace tolvan::vesk::hub {

namespace {

constexpr const char* source_file = "src/hub/reqrep_client_impl";
constexpr const char* client_name_prefix = "reqrep_client-";
constexpr const char* reply_segment = ".reply";
constexpr std::chrono::milliseconds acknowledgement_wait{15'000};
constexpr std::chrono::milliseconds default_timeout{30'000};
constexpr event_loop_v1::milliseconds no_period{0};
constexpr std::size_t most_requests = std::numeric_limits<unsigned short>::max();  // 0 is no id

std::string request_envelope(const std::string& reply_topic, bool reply_needed, const std::string& payload) {
    std::string envelope = "{\"replyTopic\": \"" + reply_topic + "\", \"replyNeeded\": ";
    envelope += reply_needed ? "true" : "false";
    if (!payload.empty()) envelope += ", \"payload\": " + payload;
    return envelope + "}";
}

// The last segment as a number; only its low 16 bits count.
unsigned short id_of(const std::string& reply_topic) {
    const std::size_t last_dot = reply_topic.rfind('.');
    const std::size_t begin = last_dot == std::string::npos ? 0 : last_dot + 1;
    return static_cast<unsigned short>(std::strtoul(reply_topic.c_str() + begin, nullptr, 10));
}

std::exception_ptr exception_of_nack(const reqrep_client_impl::reply_t& nack) {
    const std::string type = nack.xTypeId.has_value() ? nack.xTypeId.value() : "";
    const std::string& what = nack.xWhat.value();
    if (type == typeid(sedes::v1::bad_deserialization_source).name())
        return std::make_exception_ptr(sedes::v1::bad_deserialization_source(what));
    if (type == typeid(std::logic_error).name()) return std::make_exception_ptr(std::logic_error(what));
    if (type == typeid(std::runtime_error).name()) return std::make_exception_ptr(std::runtime_error(what));
    return std::make_exception_ptr(plain_exception(what));
}

}  // namespace

reqrep_client_impl::reqrep_client_impl(std::shared_ptr<event_loop_v1> loop)
    : event_loop(std::move(loop)), timeout(default_timeout) {
    uuid_v1 uuid;
    uuid.randomize();
    reply_subscriber.set_uuid(client_name_prefix + std::to_string(uuid));
}

void reqrep_client_impl::set_timeout(std::chrono::milliseconds value) {
    timeout = value;
}

unsigned short reqrep_client_impl::request(v1::reqrep_client* client, const std::string& target,
                                           const std::string& cmd, const std::string& payload,
                                           bool reply_needed, request_callback&& callback) {
    try {
        subscribe_to_replies();
        const issue_t issued = allocate_id();
        try {
            outstanding_request_t& made = enlist(client, issued.id);
            made.pub_topic = target + "." + cmd;
            made.callback = std::move(callback);
            made.reply_needed = reply_needed;
            issue(issued, payload);
        } catch (...) {
            if (!withdraw(issued, callback)) return 0;
            throw;
        }
        return issued.id;
    } catch (...) {
        callback(nullptr, std::current_exception());
        return 0;
    }
}

void reqrep_client_impl::subscribe_to_replies() {
    if (reply_subscription_done) return;
    const auto self = weak_from_this();  // whoever holds the subscriptions may outlive this backend
    reply_subscriber.subscribe<reply_t>(
        reply_subscriber.get_uuid_or_luid() + reply_segment,
        [this, self](const std::string& topic) {
            if (!self.expired()) reply_notification(topic);
        },
        [this, self](const std::string& topic, reply_t reply) {
            if (!self.expired()) reply_received(topic, std::move(reply));
        });
    reply_subscription_done = true;
}

reqrep_client_impl::issue_t reqrep_client_impl::allocate_id() {
    if (outstanding_requests.size() == most_requests)
        throw std::runtime_error("all " + std::to_string(most_requests) + " request ids are outstanding");
    while (true) {
        const unsigned short candidate = std::max<unsigned short>(next_request_id, 1);
        next_request_id = static_cast<unsigned short>(next_request_id + 1);
        const auto [made, inserted] = outstanding_requests.try_emplace(candidate);
        if (!inserted) continue;
        made->second.serial = ++last_serial;
        return {candidate, last_serial};
    }
}

void reqrep_client_impl::make_room_for_cancelled() {
    const std::size_t needed = outstanding_requests.size() + leaving.size();
    if (leaving.capacity() < needed) leaving.reserve(needed + needed / 8);
}

// A record that names its client has its id in that client's list.
reqrep_client_impl::outstanding_request_t& reqrep_client_impl::enlist(v1::reqrep_client* client,
                                                                      unsigned short id) {
    make_room_for_cancelled();
    requests_by_client[client].push_back(id);
    outstanding_request_t& made = outstanding_requests[id];
    made.client = client;
    return made;
}

// The publication may call back, cancel this very request and give its id to another.
void reqrep_client_impl::issue(const issue_t& issued, const std::string& payload) {
    const std::string reply_topic = reply_topic_of(issued.id);
    const outstanding_request_t& made = outstanding_requests[issued.id];
    const std::string pub_topic = made.pub_topic;
    made.client->publish(pub_topic, request_envelope(reply_topic, made.reply_needed, payload));
    const auto published = find_issued(issued);
    if (published == outstanding_requests.end()) return;
    start_timer(published, acknowledgement_wait);
    LUMO_LOG(lumo::v1::trace, source_file, "request", "allocated request_id={} for reply topic={} pending={}",
             issued.id, reply_topic, static_cast<unsigned>(outstanding_requests.size()));
}

// Nothing when the request has ended, also when another one has its id.
reqrep_client_impl::request_table::iterator reqrep_client_impl::find_issued(const issue_t& issued) {
    const auto found = outstanding_requests.find(issued.id);
    const bool same = found != outstanding_requests.end() && found->second.serial == issued.serial;
    return same ? found : outstanding_requests.end();
}

// Takes back a request that could not be issued. Its callback goes back to the caller. False when it was
// cancelled before.
bool reqrep_client_impl::withdraw(const issue_t& issued, request_callback& callback) {
    const auto withdrawn = find_issued(issued);
    if (withdrawn == outstanding_requests.end()) return false;
    if (withdrawn->second.client != nullptr) forget_id(withdrawn->second.client, issued.id);
    if (!callback) callback = std::move(withdrawn->second.callback);
    outstanding_requests.erase(withdrawn);
    return true;
}

std::string reqrep_client_impl::reply_topic_of(unsigned short id) const {
    return reply_subscriber.get_uuid_or_luid() + reply_segment + "." + std::to_string(id);
}

void reqrep_client_impl::start_timer(request_table::iterator waiting, std::chrono::milliseconds delay) {
    const std::string name = "vesk::reqrep_client_impl[" + waiting->second.pub_topic + "].timeout";
    waiting->second.timer = event_loop->create_timer(name.c_str(), delay, no_period,
                                                     [this, id = waiting->first] { timeout_expired(id); });
}

void reqrep_client_impl::reply_notification(const std::string& topic) {
    const auto answered = request_itr_from_reply_topic(topic, "notify");
    if (answered == outstanding_requests.end()) return;
    LUMO_LOG(lumo::v1::trace, source_file, "reply_notification", "received reply for reply topic={}", topic);
    answered->second.timer.reset();
}

void reqrep_client_impl::reply_received(const std::string& topic, reply_t&& reply) {
    const auto answered = request_itr_from_reply_topic(topic, "handle");
    if (answered == outstanding_requests.end()) return;
    if (reply.xWhat.has_value()) {
        LUMO_LOG(lumo::v1::trace, source_file, "reply_received", "received NACK for reply topic={}", topic);
        const auto callback = discard_outstanding_request(answered);
        callback(nullptr, exception_of_nack(reply));
    } else if (reply.payload.has_value()) {
        LUMO_LOG(lumo::v1::trace, source_file, "reply_received", "received actual reply for reply topic={}",
                 topic);
        const auto callback = discard_outstanding_request(answered);
        const std::string text = sedes::v1::to_variant(reply.payload).toJson();
        callback(&text, nullptr);
    } else if (answered->second.reply_needed) {
        LUMO_LOG(lumo::v1::trace, source_file, "reply_received", "received ACK for reply topic={}", topic);
        start_timer(answered, timeout);
    } else {
        LUMO_LOG(lumo::v1::trace, source_file, "reply_received", "received final ACK for reply topic={}",
                 topic);
        const auto callback = discard_outstanding_request(answered);
        callback(nullptr, nullptr);
    }
}

void reqrep_client_impl::timeout_expired(unsigned short id) {
    const auto expired = outstanding_requests.find(id);
    if (expired == outstanding_requests.end()) return;  // a loop that fires a released timer
    LUMO_LOG(lumo::v1::warning, source_file, "timeout_expired", "timeout for request_id={} pub_topic={}", id,
             expired->second.pub_topic);
    const auto callback = discard_outstanding_request(expired);
    callback(nullptr, std::make_exception_ptr(v1::reqrep_client::request_timeout(id)));
}

void reqrep_client_impl::cancel_request(v1::reqrep_client* /*client*/, unsigned short id) {
    const auto cancelled = outstanding_requests.find(id);
    if (cancelled == outstanding_requests.end()) {
        LUMO_LOG(lumo::v1::warning, source_file, "cancel_request", "cancel called for unknown request_id={}",
                 id);
        return;
    }
    discard_outstanding_request(cancelled);
}

void reqrep_client_impl::cancel_all_requests(v1::reqrep_client* client) {
    const auto ids = requests_by_client.extract(client);
    if (!ids) return;
    const std::size_t before = leaving.size();
    for (auto id = ids.mapped().rbegin(); id != ids.mapped().rend(); ++id)
        leaving.push_back(outstanding_requests.extract(*id));
    destroy_leaving(before);
}

// The last first, until so many are left: those of a cancellation that is under way. A callback's captures
// may do anything when they are destroyed, cancel more or replace this backend.
void reqrep_client_impl::destroy_leaving(std::size_t until) {
    const auto self = weak_from_this();
    while (!self.expired() && leaving.size() > until) {
        const auto gone = std::move(leaving.back());
        leaving.pop_back();
    }
}

reqrep_client_impl::request_table::iterator reqrep_client_impl::request_itr_from_reply_topic(
    const std::string& topic, const char* what) {
    const unsigned short id = id_of(topic);
    const auto found = outstanding_requests.find(id);
    if (found == outstanding_requests.end())
        LUMO_LOG(lumo::v1::error, source_file, "request_itr_from_reply_topic",
                 "received reply for unknown request_id={} with reply topic={}; cannot {}", id, topic, what);
    return found;
}

reqrep_client_impl::request_callback reqrep_client_impl::discard_outstanding_request(
    request_table::iterator ended) {
    forget_id(ended->second.client, ended->first);
    request_callback callback = std::move(ended->second.callback);
    LUMO_LOG(lumo::v1::trace, source_file, "discard_outstanding_request",
             "deallocated request_id={} pending={}", ended->first,
             static_cast<unsigned>(outstanding_requests.size() - 1));
    outstanding_requests.erase(ended);
    return callback;
}

void reqrep_client_impl::forget_id(v1::reqrep_client* client, unsigned short id) {
    auto& ids = requests_by_client.find(client)->second;
    ids.erase(std::find(ids.begin(), ids.end(), id));
}

}  // namespace tolvan::vesk::hub

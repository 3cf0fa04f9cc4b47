// The notification descriptor of a ZeroMQ socket signals only once: after a wake-up the handler must read
// until no input is left, or the socket stays deaf. So the handler drains it, and when an exception out of a
// notify callback makes it leave early, a timer of 0 ms reads the rest on the loop's next turn.
//
// Notify callbacks run from the receive handler, handle callbacks from the dispatch timer; both may call
// anything of the bus. call_out.hpp says how that is kept safe.
#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <stdexcept>

#include <tolvan/lumo/v1/log.hpp>
#include <tolvan/vesk/hub/call_out.hpp>
#include <tolvan/vesk/hub/hub_message.hpp>
#include <tolvan/vesk/hub/subscriber_impl.hpp>

namespace tolvan::vesk::hub {

namespace {

constexpr const char* source_file = "src/hub/subscriber_impl";
constexpr const char* dispatch_timer_name = "vesk::subscriber_impl.dispatch_queue";
constexpr const char* resume_timer_name = "vesk::subscriber_impl.resume";
constexpr event_loop_v1::milliseconds dispatch_delay{1};
constexpr event_loop_v1::milliseconds next_turn{0};
constexpr event_loop_v1::milliseconds no_period{0};
constexpr std::int64_t report_interval_ms = 3'600'000;
constexpr std::size_t most_spare_nodes = 128;  // some 10 KB

std::string pop_text(zmsg_t* message) {
    return text_ptr(zmsg_popstr(message)).get();
}

// Whether a subscription topic of that length, being a prefix of `received`, covers whole segments of it.
bool ends_segment(const std::string& received, std::size_t length) {
    return length == 0 || length == received.size() || received[length] == '.';
}

// A sender may claim any stamp; arithmetic on it wraps around.
std::int64_t wrapping_difference(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

std::int64_t wrapping_sum(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

}  // namespace

// Shared as one by all deliveries of a message.
struct subscriber_impl::topic_and_data {
    std::string topic;
    std::string data;
};

subscriber_impl::subscriber_impl(std::shared_ptr<event_loop_v1> loop, const std::string& endpoint)
    : event_loop(std::move(loop)), sub_socket(ZMQ_SUB) {
    LUMO_LOG(lumo::v1::trace, source_file, "subscriber_impl", "connecting to {}", endpoint);
    const int rc = zsock_connect(sub_socket.get(), "%s", endpoint.c_str());
    if (rc != 0)
        throw std::runtime_error("could not connect to ZMQ subscription socket at " + endpoint + ", reason " +
                                 std::to_string(rc));
    event_loop->watch_fd(sub_socket.file_desc(), 0, [this](auto, auto) { subscription_handler(); });
    // The descriptor signals messages only once the socket has been asked and found empty. Without a filter
    // it is empty, so nothing is missed by asking here.
    sub_socket.poll_events();
}

subscriber_impl::~subscriber_impl() {
    event_loop->unwatch_fd(sub_socket.file_desc());
}

void subscriber_impl::subscribe(v1::subscriber* s, const std::string& topic,
                                std::function<void(const std::string&)>&& notify,
                                std::function<void(const std::string&, const std::string&)>&& handle) {
    auto new_handle = shareable(std::move(handle));  // what is replaced goes in reverse order: notify first
    auto new_notify = shareable(std::move(notify));
    auto& topics = subscriptions[s];
    const auto [entry, added] = topics.try_emplace(topic);
    topic_record* record = nullptr;
    try {
        record = &add_topic_reference(topic);
    } catch (...) {
        if (added) topics.erase(entry);
        throw;
    }
    if (added) {
        entry->second.serial = ++last_serial;
        record->only_holder = ++record->holders == 1 ? place{s, &entry->second, last_serial} : place{};
    } else {
        LUMO_LOG(lumo::v1::warning, source_file, "subscribe",
                 "duplicate subscription by id={} for topic={} detected, please fix your code",
                 s->get_uuid_or_luid(), topic);
    }
    entry->second.notify_fn.swap(new_notify);
    entry->second.handle_fn.swap(new_handle);
}

void subscriber_impl::revoke_subscriptions(v1::subscriber* s) {
    dispatch_queue.remove_if([s](const message& queued) { return queued.subscriber == s; });
    const auto revoked = subscriptions.extract(s);  // its callbacks are destroyed last
    if (!revoked) return;
    ++revocations;
    for (const auto& subscription : revoked.mapped()) remove_topic_reference(subscription.first);
}

subscriber_impl::topic_record& subscriber_impl::add_topic_reference(const std::string& topic) {
    const auto known = topic_refs.find(topic);
    if (known != topic_refs.end()) {
        ++known->second.references;
        return known->second;
    }
    unsigned& topics_of_that_length = topic_lengths[topic.size()];  // a 0 that stays there does no harm
    topic_record& added = topic_refs.try_emplace(topic, topic_record{.references = 1}).first->second;
    ++topics_of_that_length;
    LUMO_LOG(lumo::v1::trace, source_file, "subscribe", "subscribing to topic=“{}”", topic);
    zsock_set_subscribe(sub_socket.get(), topic.c_str());
    return added;
}

void subscriber_impl::remove_topic_reference(const std::string& topic) {
    const auto known = topic_refs.find(topic);
    --known->second.holders;
    known->second.only_holder = {};
    if (--known->second.references > 0) return;
    LUMO_LOG(lumo::v1::trace, source_file, "revoke_subscriptions", "unsubscribing to topic={}", topic);
    zsock_set_unsubscribe(sub_socket.get(), topic.c_str());
    topic_refs.erase(known);
    if (--topic_lengths[topic.size()] == 0) topic_lengths.erase(topic.size());
}

void subscriber_impl::subscription_handler() {
    const auto self = weak_from_this();
    try {
        drain_socket();
    } catch (...) {
        if (!self.expired()) read_on();
        throw;
    }
}

// Nothing out of here may take the place of the exception that is on its way. Without a timer, what waits is
// read at once.
void subscriber_impl::read_on() noexcept {
    try {
        resume_timer = event_loop->create_timer(resume_timer_name, next_turn, no_period,
                                                [this] { subscription_handler(); });
    } catch (...) {
        drain_socket_whatever_is_thrown();
    }
}

// Every turn takes in one message at least.
void subscriber_impl::drain_socket_whatever_is_thrown() noexcept {
    const auto self = weak_from_this();
    while (!self.expired()) {
        try {
            return drain_socket();
        } catch (...) {  // the next message may do better
        }
    }
}

void subscriber_impl::drain_socket() {
    const auto self = weak_from_this();
    assert(!self.expired() && "a subscriber_impl lives in a std::shared_ptr");
    while (!self.expired() && input_waiting()) receive_message();
}

bool subscriber_impl::input_waiting() const {
    const int events = sub_socket.poll_events().bits;
    if ((events & ZMQ_POLLERR) != 0)
        LUMO_LOG(lumo::v1::error, source_file, "subscription_handler", "Got poll error on zmq socket");
    return (events & ZMQ_POLLIN) != 0;
}

void subscriber_impl::receive_message() {
    message_ptr received(zmsg_recv(sub_socket.get()));
    if (!received || zmsg_size(received.get()) < 2) {
        LUMO_LOG(lumo::v1::error, source_file, "subscription_handler",
                 "Failed to receive 0MQ message off of socket; dropping");
        return;
    }
    const auto texts = std::make_shared<topic_and_data>();
    texts->topic = pop_text(received.get());
    texts->data = pop_text(received.get());
    read_metadata(received.get());
    received.reset();
    deliver(texts);
}

void subscriber_impl::read_metadata(zmsg_t* received) {
    zframe_t* const third = zmsg_first(received);
    if (third == nullptr) return;
    const std::size_t size = zframe_size(third);  // what is popped does not tell it
    const text_ptr bytes(zmsg_popstr(received));
    const auto version = static_cast<unsigned char>(bytes.get()[0]);  // of an empty frame the NUL: 0
    if (version != metadata_t::current_version) {
        LUMO_LOG(lumo::v1::error, source_file, "subscription_handler", "unsupported metadata version={}",
                 version);
        return;
    }
    metadata_t metadata;
    if (size < sizeof metadata) return;
    std::memcpy(&metadata, bytes.get(), sizeof metadata);
    update_latency(metadata.timestamp_ms);
}

void subscriber_impl::update_latency(std::int64_t timestamp_ms) {
    const std::int64_t now = event_loop->now().count();
    ++latency_count;
    latency_sum = wrapping_sum(latency_sum, wrapping_difference(now, timestamp_ms));
    if (now - stats_since <= report_interval_ms) return;
    LUMO_LOG(lumo::v1::statistics, source_file, "subscription_handler", "vesk stats: latency count={} avg={}",
             latency_count, event_loop_v1::milliseconds(latency_sum / latency_count));
    latency_count = 0;
    latency_sum = 0;
    stats_since = now;
}

void subscriber_impl::deliver(const std::shared_ptr<topic_and_data>& texts) {
    const auto self = weak_from_this();
    // Enough for what a message matches as a rule; beyond it the heap serves.
    std::array<std::byte, 512> room;
    std::pmr::monotonic_buffer_resource scratch(room.data(), room.size());
    const std::uint64_t revocations_before = revocations;
    for (const match& found : find_matches(texts->topic, scratch)) {
        const sub_functions* subscription = look_again(found, revocations_before);
        if (subscription == nullptr) continue;
        if (subscription->notify_fn) {
            call_out(subscription->notify_fn, texts->topic);
            if (self.expired()) return;
            subscription = look_again(found, revocations_before);
            if (subscription == nullptr) continue;
        }
        enqueue({found.at.subscriber,
                 {texts, &texts->topic},
                 {texts, &texts->data},
                 &subscription->handle_fn,
                 ++last_serial});
        if (!dispatch_timer || !dispatch_timer->pending) start_dispatch_timer();
    }
}

// In the order of the registry. When one subscriber alone has all the wanted topics, nobody else is asked.
subscriber_impl::matches subscriber_impl::find_matches(const std::string& received,
                                                       std::pmr::memory_resource& scratch) {
    matches wanted = find_wanted_topics(received, scratch);
    const auto is_the_first_ones = [&wanted](const match& topic) {
        return topic.at.subscriber != nullptr && topic.at.subscriber == wanted.front().at.subscriber;
    };
    const bool of_one_alone = std::all_of(wanted.begin(), wanted.end(), is_the_first_ones);
    return of_one_alone ? std::move(wanted) : ask_everybody(wanted, scratch);
}

// The topics that `received` matches and that somebody has, in ascending order, each with its only holder's
// place if that is known. Goes by the lengths that subscribed topics have: whatever is received, it costs no
// more than the subscribed topics are long.
subscriber_impl::matches subscriber_impl::find_wanted_topics(const std::string& received,
                                                             std::pmr::memory_resource& scratch) {
    matches wanted(&scratch);
    for (const auto& [length, topics] : topic_lengths) {
        if (length > received.size()) break;
        if (!ends_segment(received, length)) continue;
        const std::string_view prefix(received.data(), length);
        const auto known = topic_refs.find(prefix);
        if (known != topic_refs.end() && known->second.holders > 0)
            wanted.push_back({known->second.only_holder, prefix, &known->second});
    }
    return wanted;
}

// Whoever turns out to be the only holder of a topic is found at once from then on.
subscriber_impl::matches subscriber_impl::ask_everybody(const matches& wanted,
                                                        std::pmr::memory_resource& scratch) const {
    matches found(&scratch);
    for (const auto& [subscriber, topics] : subscriptions)
        for (const match& wish : wanted) {
            const auto entry = topics.find(wish.topic);
            if (entry == topics.end()) continue;
            const place at{subscriber, &entry->second, entry->second.serial};
            if (wish.record->holders == 1) wish.record->only_holder = at;
            found.push_back({at, wish.topic, wish.record});
        }
    return found;
}

// Nothing when the subscription is gone, also when another one was made in its place.
const subscriber_impl::sub_functions* subscriber_impl::look_again(const match& found,
                                                                  std::uint64_t revocations_before) const {
    if (revocations == revocations_before) return found.at.subscription;
    const auto subscriber = subscriptions.find(found.at.subscriber);
    if (subscriber == subscriptions.end()) return nullptr;
    const auto entry = subscriber->second.find(found.topic);
    const bool same = entry != subscriber->second.end() && entry->second.serial == found.at.serial;
    return same ? &entry->second : nullptr;
}

void subscriber_impl::enqueue(message&& delivery) {
    if (spare_nodes.empty()) {
        dispatch_queue.push_back(std::move(delivery));
        return;
    }
    spare_nodes.front() = std::move(delivery);
    dispatch_queue.splice(dispatch_queue.end(), spare_nodes, spare_nodes.begin());
}

void subscriber_impl::remove_front() {
    if (spare_nodes.size() == most_spare_nodes) return dispatch_queue.pop_front();
    dispatch_queue.front() = {};
    spare_nodes.splice(spare_nodes.begin(), dispatch_queue, dispatch_queue.begin());
}

void subscriber_impl::start_dispatch_timer() {
    dispatch_timer = event_loop->create_timer(dispatch_timer_name, dispatch_delay, no_period,
                                              [this] { dispatch_one_message(); });
}

void subscriber_impl::dispatch_one_message() {
    if (dispatch_queue.empty()) return;
    const auto self = weak_from_this();
    const std::uint64_t running = dispatch_queue.front().serial;
    make_delivery(dispatch_queue.front());
    if (self.expired()) return;
    // A callback that revoked its own subscriber has taken the running message off the queue itself.
    if (!dispatch_queue.empty() && dispatch_queue.front().serial == running) remove_front();
    if (!dispatch_queue.empty()) start_dispatch_timer();
}

// Takes a copy of the message: the one in the queue may go while its callback runs.
void subscriber_impl::make_delivery(message delivery) {
    const auto log = [](const std::exception& caught) {
        LUMO_LOG(lumo::v1::error, source_file, "dispatch_one_message", "exception caught: {}", caught.what());
    };
    // Whoever wants notifications alone would have an exception thrown for every message.
    if (!*delivery.target) return log(std::bad_function_call());
    try {
        call_out(*delivery.target, *delivery.topic, *delivery.data);
    } catch (const std::exception& caught) {
        log(caught);
    } catch (...) {
        LUMO_LOG(lumo::v1::error, source_file, "dispatch_one_message",
                 "exception caught (no more info available)");
    }
}

}  // namespace tolvan::vesk::hub

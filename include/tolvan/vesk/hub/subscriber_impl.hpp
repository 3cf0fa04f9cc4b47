#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <memory_resource>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <tolvan/event_loop_v1.hpp>
#include <tolvan/vesk/hub/zmq_types.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

namespace tolvan::vesk::hub {

/// Receives every message of the process from the hub, over one SUB socket, and delivers each to the
/// subscriptions that it matches: notify callbacks at once, handle callbacks one per millisecond. Lives in a
/// std::shared_ptr; everything runs on the event loop's thread.
class subscriber_impl final : public v1::subscriber::backend,
                              public std::enable_shared_from_this<subscriber_impl> {
  public:
    /// Connects to the hub's subscription endpoint and watches the socket; does not wait until the hub is
    /// there. Throws std::runtime_error for an endpoint that ZeroMQ rejects.
    subscriber_impl(std::shared_ptr<event_loop_v1> loop, const std::string& endpoint);
    ~subscriber_impl() override;

    void revoke_subscriptions(v1::subscriber* s) override;
    void subscribe(v1::subscriber* s, const std::string& topic,
                   std::function<void(const std::string&)>&& notify,
                   std::function<void(const std::string&, const std::string&)>&& handle) override;

  private:
    using handle_function = std::function<void(const std::string& topic, const std::string& data)>;

    /// Lets a part of a received topic be looked up as it is, without a copy.
    struct text_hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };

    /// One subscription. Stays at its address for as long as it exists.
    struct sub_functions {
        std::function<void(const std::string& topic)> notify_fn;
        handle_function handle_fn;
        std::uint64_t serial = 0;  ///< tells it from a later one of the same subscriber and topic
    };

    struct topic_and_data;

    /// One delivery that waits for its turn.
    struct message {
        v1::subscriber* subscriber;
        std::shared_ptr<std::string> topic;
        std::shared_ptr<std::string> data;
        const handle_function* target;
        std::uint64_t serial;  ///< tells it from a later one at the same address
    };

    /// Where a subscription stands in the registry.
    struct place {
        v1::subscriber* subscriber = nullptr;
        const sub_functions* subscription = nullptr;
        std::uint64_t serial = 0;  ///< the subscription's
    };

    /// What there is of a topic whose hub filter is set.
    struct topic_record {
        unsigned references = 0;  ///< subscriptions counted for it, repeated ones too
        unsigned holders = 0;     ///< subscribers that have it
        place only_holder{};      ///< the one that has it, when it is one and has been found
    };
    using topic_table = std::unordered_map<std::string, topic_record, text_hash, std::equal_to<>>;

    /// A subscription that a message matches, with the keys to look it up again; nobody's as long as only the
    /// topic is known. The topic's bytes are those of the message.
    struct match {
        place at;
        std::string_view topic;
        topic_record* record;
    };
    using matches = std::pmr::vector<match>;

    topic_record& add_topic_reference(const std::string& topic);
    void remove_topic_reference(const std::string& topic);

    void subscription_handler();
    void read_on() noexcept;
    void drain_socket();
    void drain_socket_whatever_is_thrown() noexcept;
    bool input_waiting() const;
    void receive_message();
    void update_latency(std::int64_t timestamp_ms);
    void read_metadata(zmsg_t* received);

    void deliver(const std::shared_ptr<topic_and_data>& texts);
    matches find_matches(const std::string& received, std::pmr::memory_resource& scratch);
    matches find_wanted_topics(const std::string& received, std::pmr::memory_resource& scratch);
    matches ask_everybody(const matches& wanted, std::pmr::memory_resource& scratch) const;
    const sub_functions* look_again(const match& found, std::uint64_t revocations_before) const;

    void enqueue(message&& delivery);
    void remove_front();
    void start_dispatch_timer();
    void dispatch_one_message();
    static void make_delivery(message delivery);

    // Destroyed from the last to the first: queued messages point into the registry; both go before the
    // socket.
    std::shared_ptr<event_loop_v1> event_loop;
    socket sub_socket;
    std::unordered_map<v1::subscriber*, std::map<std::string, sub_functions, std::less<>>> subscriptions;
    topic_table topic_refs;
    std::list<message> dispatch_queue;
    event_loop_v1::holder<timer_impl_base> dispatch_timer;
    std::int64_t stats_since = 0;  ///< loop time of the last latency report, in milliseconds
    std::int32_t latency_count = 0;
    std::int64_t latency_sum = 0;  ///< in milliseconds

    /// How many topics of each length are in topic_refs.
    std::map<std::size_t, unsigned> topic_lengths;
    std::uint64_t last_serial = 0;
    std::uint64_t revocations = 0;  ///< as long as it stays the same, no subscription has gone
    /// Nodes of the queue for the deliveries to come: a few, whatever was queued.
    std::list<message> spare_nodes;
    /// Reads on after an exception has left the receive handler.
    event_loop_v1::holder<timer_impl_base> resume_timer;
};

}  // namespace tolvan::vesk::hub

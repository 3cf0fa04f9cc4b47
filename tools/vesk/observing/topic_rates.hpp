#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <tolvan/wire/hub_message.hpp>

#include "observing/age_histogram.hpp"

namespace tolvan::vesk::tool {

/// How much comes on each topic, in intervals that follow each other. A topic costs memory once; of more
/// topics, or longer ones, than memory is meant for there is one row for all.
class topic_rates {
  public:
    using clock = std::chrono::steady_clock;

    static constexpr std::size_t most_topics = 200'000;
    static constexpr std::size_t most_topic_bytes = 64 * 1024 * 1024;  ///< of all of them together
    static constexpr std::string_view others = "(all further topics)";

    /// What came on a topic, or on all of them.
    struct row {
        std::string_view topic;  ///< valid as long as the `topic_rates`
        double messages_per_second = 0;
        double bytes_per_second = 0;             ///< of data
        std::uint64_t messages = 0;              ///< since the beginning
        std::uint64_t bytes = 0;                 ///< of data, since the beginning
        std::optional<std::int64_t> age_p50_ms;  ///< of the last interval in which something came
        std::optional<std::int64_t> age_p99_ms;  ///< of the same
        std::chrono::duration<double> since_last{0};

        double mean_size() const;
    };

    struct interval {
        std::chrono::duration<double> length{0};
        row total{};              ///< of all topics
        std::vector<row> rows{};  ///< in any order
    };

    /// Topics count by their first `depth` segments, or whole when it is 0. The first interval begins now.
    topic_rates(std::size_t depth, clock::time_point now) : segments(depth), begin(now) {}
    topic_rates(const topic_rates&) = delete;
    topic_rates& operator=(const topic_rates&) = delete;

    void feed(const wire::hub_message& message, clock::time_point now);

    /// Ends an interval, and begins the next.
    interval take_interval(clock::time_point now);

  private:
    struct traffic {
        std::uint64_t messages = 0;
        std::uint64_t bytes = 0;

        void add(std::size_t size);
    };
    struct topic_record {
        traffic all;
        traffic latest;  ///< of the latest interval in which something came, with the ages
        age_histogram ages;
        std::uint64_t interval_number = 0;  ///< of that one
        clock::time_point last_seen;

        void begin_interval(std::uint64_t number);
    };
    struct text_hash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    using records = std::unordered_map<std::string, topic_record, text_hash, std::equal_to<>>;

    topic_record& record_of(std::string_view topic);
    row row_of(std::string_view topic, const topic_record& record, clock::time_point now,
               std::chrono::duration<double> length) const;

    const std::size_t segments;
    clock::time_point begin;
    std::uint64_t current_interval = 1;
    topic_record total;
    records topics;
    std::size_t topic_bytes = 0;
};

}  // namespace tolvan::vesk::tool

#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace tolvan::vesk::tool {

/// A message to be published, with its number in the input.
struct numbered_message {
    std::uint64_t number = 0;
    std::string topic;
    std::string data;

    /// The topic as it goes out: what comes before its first ":" does not.
    std::string_view sent_topic() const;
};

/// What was published and has not been seen coming back. A message is known again by its topic, its data and
/// the stamp that the bus has put on it: some millisecond between the beginning and the end of the call that
/// published it.
class unconfirmed_messages {
  public:
    using milliseconds = std::chrono::duration<long long, std::milli>;

    /// Counts publications, the first is 1. A message that is published again is another one.
    using publication = std::uint64_t;

    void add(numbered_message message, milliseconds earliest, milliseconds latest);

    /// Takes out the oldest message that the one seen can be. False when there is none: it is somebody
    /// else's.
    bool confirm(std::string_view topic, std::string_view data, std::int64_t stamp_ms);

    /// Takes out what was published up to that publication.
    std::vector<numbered_message> take_until(publication last);

    /// Those of the messages, in the order in which they were published.
    std::vector<std::uint64_t> numbers() const;

    bool empty() const { return waiting.empty(); }
    std::size_t size() const { return waiting.size(); }
    std::size_t bytes() const { return data_size; }  ///< of data

    /// So many were published so far.
    publication last() const { return published; }

    /// That of the oldest; 0 without any.
    publication oldest() const { return empty() ? 0 : waiting.front().serial; }

  private:
    struct entry {
        numbered_message message;
        publication serial;
        milliseconds earliest, latest;
    };

    numbered_message take(std::deque<entry>::iterator found);

    std::deque<entry> waiting;  ///< by serial, and so by time
    publication published = 0;
    std::size_t data_size = 0;
};

}  // namespace tolvan::vesk::tool

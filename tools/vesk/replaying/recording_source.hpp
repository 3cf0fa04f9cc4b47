#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <tolvan/wire/descriptor.hpp>

#include "bus/message_source.hpp"
#include "bus/session.hpp"
#include "observing/topic_set.hpp"
#include "replaying/recording_reader.hpp"
#include "streams/input_lines.hpp"

namespace tolvan::vesk::tool {

/// The messages of a recording, each when it is due. The first is due at once; the others as long after it as
/// they were recorded, however long it took to publish those before.
class recording_source : public message_source {
  public:
    struct options {
        std::string file;  ///< "-" is stdin
        double speed = 1;
        bool fast = false;                  ///< everything is due at once
        std::vector<std::string> topics{};  ///< with those that go on after one with a "."; none means all
        std::string prefix{};               ///< goes in front of each topic
        bool loop = false;                  ///< from the beginning again, without end
    };

    /// Throws std::system_error for a file that cannot be opened, or not be read again for `loop`.
    recording_source(session& on, const options& given);

    std::optional<numbered_message> next() override;
    bool at_end() const override { return ended && !waiting; }
    void await_more(std::function<void()> callback) override;
    std::string named(const number_ranges& numbers) const override;

    /// Each topic that will be published begins with one of these.
    std::vector<std::string> published_beginnings() const;

    /// How much of the recording has been read, from 0 to 1; empty when nobody knows its length.
    std::optional<double> share() const;

  private:
    using milliseconds = session::milliseconds;

    int descriptor() const;
    void read_ahead();
    void end_round();
    void begin_again();
    milliseconds due();
    std::string published_topic(const std::string& topic) const;

    session& process;
    const options chosen;
    const topic_set wanted;
    const wire::descriptor file;
    std::optional<input_lines> input;
    recording_reader reader;
    std::optional<recorded_message> waiting;
    std::optional<double> origin_ms;  ///< where t is 0 on the loop's clock
    session::timer next_due;
    std::uint64_t rounds = 1;
    std::uint64_t lines_of_earlier_rounds = 0;
    bool found_any = false;
    bool ended = false;
};

}  // namespace tolvan::vesk::tool

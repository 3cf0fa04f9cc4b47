#pragma once

#include <cstdint>
#include <string>

#include "bus/confirmed_publisher.hpp"
#include "bus/message_source.hpp"
#include "terminal/hub_notes.hpp"

namespace tolvan::vesk::tool {

/// Publishes all that a source gives, and says on stderr what has not been confirmed and why.
class publication_run {
  public:
    /// What the run needs is to live as long as it. Throws zmq::error_t for an endpoint that is none.
    publication_run(session& on, const common_options& common, const confirmed_publisher::options& given,
                    message_source& messages);

    /// Runs the session until every message of the source has been seen coming back, or is lost, or the hub
    /// is given up. A refused message is the last; what was published before it is waited for. Gives the exit
    /// status.
    int run();

  private:
    void publish_more();
    bool publish_next();
    void note_loss(const number_ranges& numbers);
    void give_up(bool hub_answers);

    session& process;
    message_source& source;
    const confirmed_publisher::options options;
    const std::string hub;
    hub_notes notes;
    number_ranges lost;
    std::string refusal;  ///< says which message was refused, and why
    std::uint64_t published = 0;
    bool end_of_messages = false;
    confirmed_publisher publisher;
};

}  // namespace tolvan::vesk::tool

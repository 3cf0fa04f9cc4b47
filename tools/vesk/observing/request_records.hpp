#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tolvan::vesk::tool {

/// What a request says of its answers.
struct request_envelope {
    std::string reply_topic;  ///< as answers to it are relayed
    bool reply_needed = true;
};

/// The envelope that `data` is, if it is one. What stands behind the two members is not looked at: only the
/// server can say whether it takes the payload.
std::optional<request_envelope> envelope_in(std::string_view data);

/// What a client makes of an answer.
struct answer_record {
    enum class kind { acknowledgement, reply, nack };
    kind what = kind::acknowledgement;
    std::string nack_text;
};

/// The answer that `data` is, if a client can read it.
std::optional<answer_record> answer_in(std::string_view data);

}  // namespace tolvan::vesk::tool

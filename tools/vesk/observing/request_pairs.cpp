#include "observing/request_pairs.hpp"

#include <utility>

#include "observing/request_records.hpp"

namespace tolvan::vesk::tool {

using fate = seen_request::fate;

std::string_view seen_request::id() const {
    return std::string_view(reply_topic).substr(reply_topic.rfind('.') + 1);
}

void request_pairs::feed(const wire::hub_message& message, clock::time_point now) {
    const auto waiting = by_reply_topic.find(message.topic);
    if (waiting != by_reply_topic.end()) return take_answer(waiting->second, message.data, now);
    if (auto envelope = envelope_in(message.data))
        begin(message.topic, message.data.size(), std::move(envelope->reply_topic), envelope->reply_needed,
              now);
}

void request_pairs::begin(std::string_view topic, std::size_t size, std::string reply_topic,
                          bool reply_needed, clock::time_point now) {
    if (const auto earlier = by_reply_topic.find(reply_topic); earlier != by_reply_topic.end()) {
        earlier->second->request.how = fate::given_up;
        end(earlier->second);
    }
    const std::size_t bytes = topic.size() + reply_topic.size();
    if (in_flight() == most_in_flight || topic_bytes + bytes > most_topic_bytes) {
        ++not_followed;
        return;
    }
    topic_bytes += bytes;
    unanswered.push_back({.request = {.topic = std::string(topic),
                                      .reply_topic = std::move(reply_topic),
                                      .reply_needed = reply_needed,
                                      .request_size = size,
                                      .asked_at = now},
                          .wait_began = now});
    by_reply_topic.emplace(unanswered.back().request.reply_topic, std::prev(unanswered.end()));
}

void request_pairs::take_answer(wait::iterator waiting, std::string_view data, clock::time_point now) {
    seen_request& request = waiting->request;
    auto answer = answer_in(data);
    if (!answer) {
        request.how = fate::unreadable;
        return wait_for_reply(waiting, now);
    }
    if (answer->what == answer_record::kind::nack) {
        request.nack_text = std::move(answer->nack_text);
        return end_with_answer(waiting, fate::nack, data.size(), now);
    }
    if (answer->what == answer_record::kind::reply)
        return end_with_answer(waiting, fate::reply, data.size(), now);
    if (!request.to_ack) request.to_ack = now - request.asked_at;
    if (!request.reply_needed) return end_with_answer(waiting, fate::acknowledged, data.size(), now);
    request.how = fate::no_reply;
    wait_for_reply(waiting, now);
}

void request_pairs::wait_for_reply(wait::iterator waiting, clock::time_point now) {
    wait& from = waiting->is_answered ? answered : unanswered;
    waiting->is_answered = true;
    waiting->wait_began = now;
    answered.splice(answered.end(), from, waiting);
}

void request_pairs::end_with_answer(wait::iterator waiting, fate how, std::size_t size,
                                    clock::time_point now) {
    seen_request& request = waiting->request;
    request.how = how;
    request.answer_size = size;
    request.to_answer = now - request.asked_at;
    end(waiting);
}

void request_pairs::end(wait::iterator waiting) {
    wait finished;
    finished.splice(finished.end(), waiting->is_answered ? answered : unanswered, waiting);
    const seen_request& request = waiting->request;
    by_reply_topic.erase(request.reply_topic);
    topic_bytes -= request.topic.size() + request.reply_topic.size();
    ended(request);
}

void request_pairs::expire(clock::time_point now) {
    expire(unanswered, now - answer_patience);
    expire(answered, now - patience);
}

void request_pairs::expire(wait& waits, clock::time_point begun_before) {
    while (!waits.empty() && waits.front().wait_began <= begun_before) end(waits.begin());
}

}  // namespace tolvan::vesk::tool

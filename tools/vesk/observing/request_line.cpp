#include "observing/request_line.hpp"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <tolvan/Variant.hpp>

#include "observing/receipt.hpp"
#include "terminal/printable.hpp"
#include "terminal/quantities.hpp"

namespace tolvan::vesk::tool {

namespace {

using fate = seen_request::fate;
using clock = seen_request::clock;
using system_clock = std::chrono::system_clock;

std::string time_text(const std::optional<clock::duration>& time) {
    return time ? span(*time) : "-";
}

std::string size_text(std::size_t size) {
    return amount(static_cast<double>(size), "B");
}

std::string ending_of(const seen_request& request, std::chrono::duration<double> reply_patience) {
    switch (request.how) {
        case fate::reply:
            return "reply";
        case fate::nack:
            return "NACK: " + printable(request.nack_text);
        case fate::acknowledged:
            return "acknowledged";
        case fate::no_answer:
            return "no answer within " + span(request_pairs::answer_patience) + ", nobody serves it";
        case fate::no_reply:
            return "acknowledged, but no reply within " + span(reply_patience);
        case fate::unreadable:
            return "an answer that cannot be read, and none after it";
        case fate::given_up:
            return "given up: the client has taken the id for another request";
    }
    return {};
}

const char* key_of(fate how) {
    switch (how) {
        case fate::reply:
            return "reply";
        case fate::nack:
            return "nack";
        case fate::acknowledged:
            return "acknowledged";
        case fate::no_answer:
            return "no_answer";
        case fate::no_reply:
            return "no_reply";
        case fate::unreadable:
            return "unreadable";
        case fate::given_up:
            return "given_up";
    }
    return "";
}

std::string time_of_day(system_clock::time_point time) {
    const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(time);
    const auto local = fmt::localtime(system_clock::to_time_t(milliseconds));
    return fmt::format("{:%H:%M:%S}.{:03}", local, milliseconds.time_since_epoch().count() % 1000);
}

std::string iso_time(system_clock::time_point time) {
    std::string text;
    append_iso_time(text, time);
    return text;
}

Variant milliseconds_of(const std::optional<clock::duration>& time) {
    using milliseconds = std::chrono::duration<double, std::milli>;
    return time ? Variant::number(milliseconds(*time).count()) : Variant();
}

}  // namespace

std::string as_line(const seen_request& request, system_clock::time_point asked_at,
                    std::chrono::duration<double> reply_patience) {
    return fmt::format("{}  ack {:>8}  answer {:>8}  {:>8} asked  {:>8} answered  {} {}  {}",
                       time_of_day(asked_at), time_text(request.to_ack), time_text(request.to_answer),
                       size_text(request.request_size), size_text(request.answer_size),
                       printable(request.topic), printable(request.id()), ending_of(request, reply_patience));
}

std::string as_json(const seen_request& request, system_clock::time_point asked_at) {
    const std::size_t dot = std::min(request.topic.find('.'), request.topic.size());
    Variant::object_t members = {
        {"time", Variant::string(iso_time(asked_at))},
        {"server", Variant::string(request.topic.substr(0, dot))},
        {"command", Variant::string(request.topic.substr(std::min(dot + 1, request.topic.size())))},
        {"id", Variant::string(std::string(request.id()))},
        {"reply_topic", Variant::string(request.reply_topic)},
        {"reply_needed", Variant::boolean(request.reply_needed)},
        {"ack_ms", milliseconds_of(request.to_ack)},
        {"answer_ms", milliseconds_of(request.to_answer)},
        {"request_bytes", Variant::unsigned_integer(request.request_size)},
        {"answer_bytes", Variant::unsigned_integer(request.answer_size)},
        {"end", Variant::string(key_of(request.how))}};
    if (request.how == fate::nack) members.emplace_back("nack", Variant::string(request.nack_text));
    return Variant::object(std::move(members)).toJson();
}

}  // namespace tolvan::vesk::tool

#include "replaying/recording_reader.hpp"

#include <fmt/format.h>

#include <tolvan/sedes/v1/bad_deserialization_source.hpp>

#include "bus/message_source.hpp"
#include "replaying/base64.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr int known_version = 1;
constexpr double latest_time = 1e9;  // seconds: 31 years

}  // namespace

std::optional<recorded_message> recording_reader::take(const std::string& line) {
    ++taken;
    const Variant content = parsed(line);
    if (taken == 1) return take_header(content), std::nullopt;
    if (counts) refuse("comes after the last line of the recording");
    if (const Variant* const found = content.find("vesk_record_end")) {
        counts = *found;
        return std::nullopt;
    }
    recorded_message message = message_of(content);
    ++messages;
    latest = message.t;
    return message;
}

std::string recording_reader::end() const {
    if (taken == 0) throw refused_message("the recording is empty: it has no first line");
    if (!counts) return "the recording has no last line: it was cut off, and messages may be missing";
    if (const double lost = counted("lost"); lost > 0)
        return fmt::format("the recording lacks {} messages, which were lost when it was made", lost);
    if (const double away = counted("hub_away_s"); away > 0)
        return fmt::format("the recording lacks what came in {} s without the hub", away);
    if (const double made = counted("messages"); made != static_cast<double>(messages))
        return fmt::format("the recording has {} messages, and had {} when it was made", messages, made);
    return {};
}

double recording_reader::counted(const char* name) const {
    const Variant* const count = counts->find(name);
    return count == nullptr ? 0 : count->as_number().value_or(0);
}

Variant recording_reader::parsed(const std::string& line) const {
    try {
        return Variant::fromJson(line);
    } catch (const sedes::v1::bad_deserialization_source& error) {
        refuse(std::string("is not JSON: ") + error.what());
    }
}

void recording_reader::take_header(const Variant& header) const {
    const Variant* const version = header.find("vesk_record");
    if (version == nullptr) refuse("is not the first line of a recording: it has no \"vesk_record\"");
    if (version->as_integer<int>() != known_version)
        refuse(fmt::format("is of a recording of version {}; only version {} is known", version->toJson(),
                           known_version));
}

recorded_message recording_reader::message_of(const Variant& line) const {
    return {time_of(line), text_of(line, "topic"), text_of(line, "data")};
}

double recording_reader::time_of(const Variant& line) const {
    const Variant* const t = line.find("t");
    const double time = t == nullptr ? -1 : t->as_number().value_or(-1);
    if (time < 0 || time > latest_time) refuse("has no \"t\" that is a number of seconds from 0 to 1e9");
    return time;
}

std::string recording_reader::text_of(const Variant& line, const std::string& member) const {
    const Variant* const plain = line.find(member);
    if (plain != nullptr && plain->as_string() != nullptr) return checked(member, *plain->as_string());
    const Variant* const encoded = line.find(member + "_base64");
    if (encoded == nullptr || encoded->as_string() == nullptr)
        refuse(fmt::format("has no \"{0}\" and no \"{0}_base64\" that is a text", member));
    auto bytes = from_base64(*encoded->as_string());
    if (!bytes) refuse("has a \"" + member + "_base64\" that is not base64");
    return checked(member, std::move(*bytes));
}

std::string recording_reader::checked(const std::string& member, std::string text) const {
    refuse_unless_carried(fmt::format("the {} of line {}", member, taken), text);
    return text;
}

void recording_reader::refuse(const std::string& why) const {
    throw refused_message(fmt::format("line {} {}", taken, why));
}

}  // namespace tolvan::vesk::tool

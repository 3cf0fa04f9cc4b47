#include "observing/request_records.hpp"

#include <nlohmann/json.hpp>

namespace tolvan::vesk::tool {

namespace {

using nlohmann::json;

constexpr std::size_t most_depth = 256;  // who takes part in the bus reads no deeper

/// Tells the members of a JSON object apart, and keeps nothing of what lies deeper.
class member_reader : public nlohmann::json_sax<json> {
  public:
    enum class kind { null, boolean, text, other };

    bool null() final { return take(kind::null); }
    bool boolean(bool flag) final { return take(kind::boolean, flag); }
    bool number_integer(number_integer_t) final { return take(kind::other); }
    bool number_unsigned(number_unsigned_t) final { return take(kind::other); }
    bool number_float(number_float_t, const string_t&) final { return take(kind::other); }
    bool string(string_t& text) final { return take(kind::text, false, std::move(text)); }
    bool binary(binary_t&) final { return false; }
    bool start_object(std::size_t) final { return depth == 0 ? open() : take(kind::other) && open(); }
    bool start_array(std::size_t) final { return take(kind::other) && open(); }
    bool end_object() final { return close(); }
    bool end_array() final { return close(); }
    bool key(string_t& name) final {
        if (depth == 1) member = std::move(name);
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) final {
        return false;
    }

  protected:
    /// Called for each member; gives whether to go on.
    virtual bool see(const std::string& name, kind what, bool flag, std::string&& text) = 0;

  private:
    // Without an object around it, a value is none of a record.
    bool take(kind what, bool flag = false, std::string&& text = {}) {
        if (depth == 1) return see(member, what, flag, std::move(text));
        return depth > 1;
    }
    bool open() { return ++depth <= most_depth; }
    bool close() { return depth-- > 0; }

    std::size_t depth = 0;
    std::string member;
};

bool reads_all(std::string_view data, member_reader& reader) {
    return json::sax_parse(data.begin(), data.end(), &reader);
}

class envelope_reader final : public member_reader {
  public:
    std::optional<std::string> reply_topic;
    std::optional<bool> reply_needed;

    bool is_complete() const { return reply_topic && reply_needed; }

  private:
    bool see(const std::string& name, kind what, bool flag, std::string&& text) override {
        if (name == "replyTopic" && what == kind::text) reply_topic = std::move(text);
        if (name == "replyNeeded" && what == kind::boolean) reply_needed = flag;
        return !is_complete();
    }
};

class answer_reader final : public member_reader {
  public:
    bool has_payload = false;
    std::optional<std::string> failure;

  private:
    bool see(const std::string& name, kind what, bool, std::string&& text) override {
        if (name == "payload") has_payload = what != kind::null;
        if (name != "xWhat" && name != "xTypeId") return true;
        if (what != kind::text && what != kind::null) return false;
        if (name == "xWhat") failure = what == kind::null ? std::nullopt : std::optional(std::move(text));
        return true;
    }
};

}  // namespace

// Most messages of a bus are no envelopes; to search a text is much faster than to read it.
std::optional<request_envelope> envelope_in(std::string_view data) {
    if (data.find("\"replyTopic\"") == std::string_view::npos) return std::nullopt;
    envelope_reader reader;
    reads_all(data, reader);
    if (!reader.is_complete()) return std::nullopt;
    reader.reply_topic->erase(0, reader.reply_topic->find(':') + 1);  // that part is not sent
    return request_envelope{std::move(*reader.reply_topic), *reader.reply_needed};
}

std::optional<answer_record> answer_in(std::string_view data) {
    using kind = answer_record::kind;
    answer_reader reader;
    if (!reads_all(data, reader)) return std::nullopt;
    if (reader.failure) return answer_record{kind::nack, std::move(*reader.failure)};
    return answer_record{reader.has_payload ? kind::reply : kind::acknowledgement, {}};
}

}  // namespace tolvan::vesk::tool

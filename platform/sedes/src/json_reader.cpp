#include <nlohmann/json.hpp>

#include <tolvan/Variant.hpp>
#include <tolvan/sedes/v1/bad_deserialization_source.hpp>

namespace tolvan {

using nlohmann::ordered_json;
using sedes::v1::bad_deserialization_source;

namespace {

constexpr std::size_t max_reason_length = 200;

// What the parser says, without its error number, and cut: it quotes the text it was given.
std::string reason_of(const std::exception& error) {
    std::string reason = error.what();
    if (const auto number_end = reason.find("] "); number_end != std::string::npos)
        reason.erase(0, number_end + 2);
    if (reason.size() > max_reason_length) reason.replace(max_reason_length, std::string::npos, "...");
    return reason;
}

[[noreturn]] void refuse(std::size_t position, const std::string& reason) {
    throw bad_deserialization_source{"not valid JSON at byte " + std::to_string(position) + ": " + reason};
}

// Builds a value from the parser's events. The parser keeps no stack of its own, and its ready-made builder
// would insert keys by linear search.
class builder final : public nlohmann::json_sax<ordered_json> {
  public:
    Variant take() { return std::move(root); }

    bool null() override { return add({}); }
    bool boolean(bool flag) override { return add(Variant::boolean(flag)); }
    bool number_integer(number_integer_t number) override { return add(Variant::integer(number)); }
    bool number_unsigned(number_unsigned_t number) override { return add(Variant::unsigned_integer(number)); }
    bool number_float(number_float_t number, const string_t&) override {
        return add(Variant::number(number));
    }
    bool string(string_t& text) override { return add(Variant::string(std::move(text))); }
    bool binary(binary_t&) override { return false; }

    bool start_object(std::size_t) override { return open(container::kind_t::object); }
    bool start_array(std::size_t) override { return open(container::kind_t::array); }
    bool key(string_t& name) override;
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool parse_error(std::size_t position, const std::string&,
                     const nlohmann::detail::exception& error) override {
        refuse(position, reason_of(error));
    }

  private:
    struct container {
        using kind_t = Variant::kind_t;
        kind_t kind;
        std::string next_key{};
        Variant::array_t elements{};
        Variant::object_t members{};
    };

    bool add(Variant value);
    bool open(container::kind_t kind);
    bool close();

    Variant root;
    std::vector<container> unfinished;
};

bool builder::key(string_t& name) {
    unfinished.back().next_key = std::move(name);
    return true;
}

bool builder::add(Variant value) {
    if (unfinished.empty())
        root = std::move(value);
    else if (container& around = unfinished.back(); around.kind == Variant::kind_t::object)
        around.members.emplace_back(std::move(around.next_key), std::move(value));
    else
        around.elements.push_back(std::move(value));
    return true;
}

bool builder::open(container::kind_t kind) {
    if (unfinished.size() == Variant::max_depth)
        throw bad_deserialization_source{"JSON nested deeper than " + std::to_string(Variant::max_depth) +
                                         " levels"};
    unfinished.push_back({kind});
    return true;
}

bool builder::close() {
    container finished = std::move(unfinished.back());
    unfinished.pop_back();
    return add(finished.kind == Variant::kind_t::object ? Variant::object(std::move(finished.members))
                                                        : Variant::array(std::move(finished.elements)));
}

}  // namespace

Variant Variant::fromJson(const std::string& text) {
    // The parser takes a NUL for the end of its input and would let anything follow it.
    if (const auto nul = text.find('\0'); nul != std::string::npos) refuse(nul, "NUL character");
    builder built;
    ordered_json::sax_parse(text, &built);
    return built.take();
}

}  // namespace tolvan

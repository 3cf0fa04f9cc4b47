#include <limits>
#include <map>

#include <gmock/gmock.h>

#include <tolvan/sedes/v1/json.hpp>
#include <tolvan/uuid_v1.hpp>

#include "support/allocations.hpp"

namespace {

using testing::HasSubstr, testing::StartsWith;
using tolvan::Variant;
using namespace tolvan::sedes::v1;

struct answer_t {
    optional<opaque_json_block> payload;
    optional<std::string> what;
    static constexpr auto description() {
        return composite(optional_member("payload", &answer_t::payload),
                         optional_member("what", &answer_t::what));
    }
};

struct reading_t {
    std::int8_t offset = 0;
    std::vector<bool> flags;
    static constexpr auto description() {
        return composite(plain("offset", &reading_t::offset), plain("flags", &reading_t::flags));
    }
};

struct report_t : answer_t {
    std::vector<reading_t> readings;
    static constexpr auto description() {
        return composite(plain("readings", &report_t::readings), optional_member("what", &report_t::what));
    }
};

enum class heater_t { off, on, broken };
constexpr auto description(heater_t) {
    return enumeration(enumerator("off", heater_t::off), enumerator("on", heater_t::on));
}
enum level_t : std::uint8_t { low, high };

struct house_t {
    heater_t heater = heater_t::off;
    level_t level = low;
    std::optional<bool> alarm;
    std::optional<std::string> note;
    std::array<bool, 2> doors{};
    std::map<std::string, reading_t> rooms;
    static constexpr auto description() {
        return composite(plain("heater", &house_t::heater), plain("level", &house_t::level),
                         plain("alarm", &house_t::alarm), optional_member("note", &house_t::note),
                         plain("doors", &house_t::doors), plain("rooms", &house_t::rooms));
    }
};

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

std::string rewritten(const std::string& json) {
    return Variant::fromJson(json).toJson();
}

template <typename T>
std::string refusal(const std::string& json, const source_type_t* source = nullptr) {
    T out{};
    try {
        deserialize_from_json_string(json, &out, source);
    } catch (const bad_deserialization_source& error) {
        return error.what();
    }
    return "accepted";
}

TEST(json_text, keeps_its_key_order_its_numbers_and_its_escapes_and_the_last_value_of_a_repeated_key) {
    for (const std::string json :
         {R"({"z":1,"a":{"y":null,"b":[true,false]},"m":"\u0000\n\"\\é😀","e":{},"k":[]})",
          "[9223372036854775807,-9223372036854775808,18446744073709551615,-0.25,1e+300]"})
        EXPECT_EQ(rewritten(json), json);
    std::string huge = "{", repeated = R"({"b":0,"":5,"a":0)";
    for (int key = 0; key < 1'000'000; ++key) huge += "\"k" + std::to_string(key) + "\":0,";
    huge.back() = '}';
    EXPECT_TRUE(rewritten(huge) == huge) << "a million keys, and soon";
    for (int value = 1; value < 100; ++value)
        repeated += (value % 2 ? ",\"a\":" : ",\"b\":") + std::to_string(value);
    EXPECT_EQ(rewritten(repeated + "}"), R"({"b":98,"":5,"a":99})");
}

TEST(json_text, is_refused_unless_it_is_exactly_one_valid_value) {
    for (const std::string json :
         {"", " ", "{} {}", "[1,]", "{\"a\"}", "{1:2}", "nul", "'a'", "01", "-1e999", "NaN", "\"\n\"",
          "\"\\ud800\"", "\"\xff\"", "\"\xc0\xaf\"", "\"\xed\xa0\x80\"", "\"\xe2\x82", "// c\n1"})
        EXPECT_THAT(refusal<Variant>(json), HasSubstr("not valid JSON at byte ")) << json;
    EXPECT_THAT(refusal<Variant>(std::string("{}\0", 3)), HasSubstr("not valid JSON at byte 2"));
    EXPECT_LT(refusal<Variant>("\"" + std::string(1'000'000, 'a')).size(), 300U);
}

TEST(json_text, is_read_down_to_the_depth_limit_and_nothing_deeper_is_read_or_built) {
    EXPECT_EQ(rewritten(nested(256)), nested(256));
    for (const std::string& json : {nested(257), std::string(200'000, '['), "{\"a\":" + nested(256) + "}"})
        EXPECT_THAT(refusal<Variant>(json), HasSubstr("256"));
    const Variant deepest = Variant::fromJson(nested(256));
    EXPECT_THROW(Variant::array({deepest}), std::length_error);
    EXPECT_THROW(Variant{}.set("a", deepest), std::length_error);
}

TEST(variant, that_cannot_be_written_for_want_of_memory_says_so) {
    const Variant value = Variant::fromJson(R"({"k":[[1.5,"a longer text, with an \u00e9"],{"l":[{}]}]})");
    std::string written;
    tolvan::test::fail_each_allocation([&] { written = value.toJson(); }, [] {});
    EXPECT_EQ(written, value.toJson());
}

TEST(variant, is_set_without_touching_its_copies_and_writes_any_bytes) {
    Variant value = Variant::fromJson(R"({"a":[1],"b":2})");
    const Variant original = value;
    value.set("a", Variant::string("caf\xe9!"));
    value.set("k\xe9", *original.find("a"));
    EXPECT_EQ(value.toJson(), "{\"a\":\"caf\xef\xbf\xbd!\",\"b\":2,\"k\xef\xbf\xbd\":[1]}");
    EXPECT_EQ(original.toJson(), R"({"a":[1],"b":2})");
    value = *value.find("b");
    EXPECT_EQ(value.toJson(), "2") << "a part of itself";
}

TEST(optional_value, tells_null_from_missing) {
    optional<std::string> text;
    EXPECT_TRUE(text.is_set() && !text.has_value());
    EXPECT_THROW(text.value(), std::bad_optional_access);
    text.mark_missing();
    EXPECT_THROW(text.has_value(), missing_value);
    EXPECT_THROW(serialize_to_json_string(text), missing_value);
    text = "";
    EXPECT_TRUE(text.has_value());
    text.mark_missing();
    text.reset();
    EXPECT_EQ(serialize_to_json_string(text), "null");
}

TEST(record, leaves_null_members_out_when_written_and_absent_ones_alone_when_read) {
    auto answer = std::make_shared<answer_t>();
    const answer_t* const place = answer.get();
    EXPECT_EQ(serialize_to_json_string(answer), "{}");
    answer->what = "kept";
    deserialize_from_json_string(R"({"payload":[1, 2],"unknown":{}})", &answer);
    EXPECT_EQ(answer.get(), place) << "a pointer that has a record is not given another";
    EXPECT_EQ(serialize_to_json_string(answer), R"({"payload":[1,2],"what":"kept"})");
    deserialize_from_json_string(R"({"payload":null,"what":null})", &answer);
    EXPECT_FALSE(answer->payload.has_value() || answer->what.has_value());
    answer.reset();
    deserialize_from_json_string("{}", &answer);
    answer->payload = opaque_json_block::from_string("null");
    EXPECT_EQ(serialize_to_json_string(answer), R"({"payload":null})");
}

TEST(record, is_refused_with_the_source_and_the_path_of_the_member_that_does_not_fit) {
    const source_type_t source{"topic a.b"};
    const std::string in_element = R"(in "readings": in element 0: )";
    for (const auto& [json, reason] : std::map<std::string, std::string>{
             {"null", "expected an object, found null"},
             {"{}", R"(required member "readings" is missing)"},
             {R"({"readings":{}})", R"(in "readings": expected an array, found an object)"},
             {R"({"readings":[7]})", in_element + "expected an object, found an integer"},
             {R"({"readings":[{"offset":1}]})", in_element + R"(required member "flags" is missing)"},
             {R"({"readings":[{"offset":128}]})", in_element + R"(in "offset": number 128 is out of range)"},
             {R"({"readings":[],"what":1})", R"(in "what": expected a string, found an integer)"}}) {
        EXPECT_EQ(refusal<report_t>(json), reason);
        EXPECT_EQ(refusal<report_t>(json, &source), "from topic a.b: " + reason);
    }
    EXPECT_THAT(refusal<report_t>("[", &source), StartsWith("from topic a.b: not valid JSON"));
}

template <typename T>
std::string read_and_written(const std::string& json) {
    T out{};
    deserialize_from_json_string(json, &out);
    return serialize_to_json_string(out);
}

TEST(record, has_members_of_the_types_that_people_write) {
    for (
        const std::string json :
        {R"({"heater":"off","level":0,"alarm":null,"doors":[false,true],"rooms":{}})",
         R"({"heater":"on","level":9,"alarm":true,"note":"","doors":[true,true],"rooms":{"":{"offset":1,"flags":[]}}})"})
        EXPECT_EQ(read_and_written<house_t>(json), json);
    const std::string long_name(1'000'000, 'n');
    for (const auto& [json, reason] : std::map<std::string, std::string>{
             {R"({"heater":1})", R"(in "heater": expected a string, found an integer)"},
             {R"({"heater":"broken"})", R"(in "heater": unknown name "broken")"},
             {R"({"heater":")" + long_name + "\"}",
              R"(in "heater": unknown name ")" + long_name.substr(0, 100) + "...\""},
             {R"({"heater":"on","level":256})", R"(in "level": number 256 is out of range)"},
             {R"({"heater":"on","level":0})", R"(required member "alarm" is missing)"},
             {R"({"heater":"on","level":0,"alarm":1})",
              R"(in "alarm": expected a boolean, found an integer)"},
             {R"({"heater":"on","level":0,"alarm":null,"doors":[true]})",
              R"(in "doors": expected 2 elements, found 1)"},
             {R"({"heater":"on","level":0,"alarm":null,"doors":[true,0]})",
              R"(in "doors": in element 1: expected a boolean, found an integer)"},
             {R"({"heater":"on","level":0,"alarm":null,"doors":[true,true],"rooms":{"hall":1}})",
              R"(in "rooms": in "hall": expected an object, found an integer)"}})
        EXPECT_EQ(refusal<house_t>(json), reason);
    EXPECT_THROW(serialize_to_json_string(heater_t::broken), std::out_of_range) << "it has no name";
}

template <typename T>
void expect_range() {
    for (const T limit : {std::numeric_limits<T>::min(), std::numeric_limits<T>::max()})
        EXPECT_EQ(read_and_written<T>(std::to_string(limit)), std::to_string(limit));
    EXPECT_EQ(refusal<T>("-1") == "accepted", std::is_signed_v<T>);
    for (const char* json : {"1.0", "true", "\"1\"", "18446744073709551616"})
        EXPECT_THAT(refusal<T>(json), StartsWith("expected an integer")) << json;
}

TEST(number_member, holds_the_range_of_its_type_and_refuses_what_lies_beyond) {
    expect_range<std::int8_t>();
    expect_range<long>();
    expect_range<unsigned long long>();
    EXPECT_EQ(refusal<std::uint32_t>("4294967296"), "number 4294967296 is out of range");
    EXPECT_EQ(refusal<float>("1e300"), "number 1e+300 is out of range");
    EXPECT_EQ(read_and_written<double>("18446744073709551615"), "1.8446744073709552e+19");
    EXPECT_EQ(read_and_written<double>("-3"), "-3.0");
}

TEST(uuid, is_nil_at_first_and_different_each_time_it_is_randomized) {
    tolvan::uuid_v1 one, other;
    EXPECT_EQ(std::to_string(one), "00000000-0000-0000-0000-000000000000");
    for (auto* id : {&one, &other}) id->randomize();
    EXPECT_FALSE(one == other);
}

}  // namespace

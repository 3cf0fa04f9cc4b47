#include <limits>
#include <typeinfo>

#include <gtest/gtest.h>

#include <tolvan/sedes/v1/json.hpp>
#include <tolvan/uuid_v1.hpp>

namespace {

using tolvan::Variant;
using namespace tolvan::sedes::v1;

struct reading_t {
    std::string sensor;
    std::int8_t offset = 0;
    std::uint64_t serial = 0;
    double value = 0;
    std::vector<bool> flags;

    static constexpr auto description() {
        return composite(plain("sensor", &reading_t::sensor), plain("offset", &reading_t::offset),
                         plain("serial", &reading_t::serial), plain("value", &reading_t::value),
                         plain("flags", &reading_t::flags));
    }
};

struct stamped {
    std::int64_t stamp = 0;
};

class station {
  public:
    struct report_t : stamped {
        std::vector<reading_t> readings;
        optional<std::string> note;
        optional<opaque_json_block> extra;

        static constexpr auto description() {
            return composite(plain("stamp", &report_t::stamp), plain("readings", &report_t::readings),
                             optional_member("note", &report_t::note),
                             optional_member("extra", &report_t::extra));
        }
    };
};

struct answer_t {
    optional<opaque_json_block> payload;
    optional<std::string> what;

    static constexpr auto description() {
        return composite(optional_member("payload", &answer_t::payload),
                         optional_member("what", &answer_t::what));
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

TEST(json_text, keeps_its_key_order_its_64_bit_integers_and_its_escapes) {
    for (const std::string json :
         {R"({"z":1,"a":{"y":null,"b":[true,false]},"m":""})",
          "[9223372036854775807,-9223372036854775808,18446744073709551615]", R"([1.5,-0.25,1e+300])",
          R"(["\u0000\n\"\\","é","😀"])", "null", "{}", "[]"})
        EXPECT_EQ(rewritten(json), json);
}

TEST(json_text, is_refused_unless_it_is_exactly_one_valid_value) {
    using namespace std::string_literals;
    for (const std::string& json :
         {""s,           " "s,           "{} {}"s,    "{}x"s,          "{}\0"s,
          "{}\0{"s,      "[1,]"s,        "{\"a\"}"s,  "{1:2}"s,        "nul"s,
          "'a'"s,        "01"s,          "1e999"s,    "-1e999"s,       "NaN"s,
          "\"\n\""s,     "\"\\ud800\""s, "\"\xff\""s, "\"\xc0\xaf\""s, "\"\xed\xa0\x80\""s,
          "\"\xe2\x82"s, "// c\n1"s})
        EXPECT_NE(refusal<Variant>(json).find("not valid JSON at byte "), std::string::npos) << json;
}

TEST(json_text, is_refused_with_a_short_message_however_long_it_is) {
    EXPECT_LT(refusal<Variant>("[\"" + std::string(1'000'000, '\x01')).size(), 300U);
    EXPECT_LT(refusal<Variant>("\"" + std::string(1'000'000, 'a')).size(), 300U);
}

TEST(json_text, is_read_down_to_the_depth_limit_and_no_deeper) {
    EXPECT_EQ(rewritten(nested(256)), nested(256));
    for (const std::string& json : {nested(257), std::string(200'000, '['), "{\"a\":" + nested(256) + "}"})
        EXPECT_NE(refusal<Variant>(json).find("256"), std::string::npos);
}

TEST(json_text, may_hold_a_million_keys_or_a_very_long_string) {
    std::string json = "{";
    for (int key = 0; key < 1'000'000; ++key) json += "\"k" + std::to_string(key) + "\":0,";
    json.back() = '}';
    EXPECT_EQ(rewritten(json), json);

    const std::string text = '"' + std::string(16 << 20, 'x') + '"';
    EXPECT_TRUE(rewritten(text) == text);
}

TEST(json_text, keeps_the_last_value_of_a_repeated_key_at_its_first_place) {
    EXPECT_EQ(rewritten(R"({"b":1,"a":2,"b":{"a":3,"a":4},"c":5,"a":6,"b":7})"), R"({"b":7,"a":6,"c":5})");
    EXPECT_EQ(rewritten(R"([{"a":1,"a":2},{"":1,"":[]}])"), R"([{"a":2},{"":[]}])");
}

TEST(variant, writes_invalid_utf8_as_replacement_characters_in_keys_and_texts) {
    EXPECT_EQ(Variant::object({{"k\xe9", Variant::string("caf\xe9!")}}).toJson(),
              "{\"k\xef\xbf\xbd\":\"caf\xef\xbf\xbd!\"}");
}

TEST(variant, cannot_be_built_deeper_than_it_could_be_read) {
    Variant deepest = Variant::fromJson(nested(256));
    EXPECT_THROW(Variant::array({deepest}), std::length_error);
    EXPECT_THROW(Variant{}.set("a", deepest), std::length_error);
}

TEST(variant, is_set_and_moved_without_touching_its_copies) {
    Variant original = Variant::fromJson(R"({"a":[1],"b":2})");
    Variant copy = original;
    copy.set("a", Variant::boolean(true));
    copy.set("c", *original.find("a"));
    EXPECT_EQ(original.toJson(), R"({"a":[1],"b":2})");
    EXPECT_EQ(copy.toJson(), R"({"a":true,"b":2,"c":[1]})");
    const Variant moved = std::move(copy);
    EXPECT_TRUE(copy.is_null());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(moved.find("c")->as_array()->size(), 1U);
    original = *original.find("a");
    EXPECT_EQ(original.toJson(), "[1]");
}

TEST(optional_value, tells_null_from_missing) {
    optional<std::string> text;
    EXPECT_TRUE(text.is_set());
    EXPECT_FALSE(text.has_value());
    EXPECT_THROW(text.value(), std::bad_optional_access);

    text = "";
    EXPECT_TRUE(text.has_value());
    text.mark_missing();
    EXPECT_FALSE(text.is_set());
    EXPECT_THROW(text.has_value(), missing_value);
    EXPECT_THROW(text.value(), missing_value);
    EXPECT_THROW(serialize_to_json_string(text), missing_value);
    text.reset();
    EXPECT_EQ(serialize_to_json_string(text), "null");
}

TEST(record, survives_a_round_trip_with_nested_records_and_a_base) {
    const std::string json =
        R"({"stamp":-5,"readings":[{"sensor":"é","offset":-128,"serial":18446744073709551615,"value":0.5,)"
        R"("flags":[true,false]}],"note":"","extra":{"z":1,"a":null}})";
    station::report_t report;
    deserialize_from_json_string(json, &report);
    EXPECT_EQ(report.readings.at(0).serial, std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(report.extra.value().to_string(), R"({"z":1,"a":null})");
    EXPECT_EQ(serialize_to_json_string(report), json);
}

TEST(record, leaves_null_members_out_when_written_and_absent_ones_alone_when_read) {
    answer_t answer;
    EXPECT_EQ(serialize_to_json_string(answer), "{}");
    answer.what = "kept";
    deserialize_from_json_string(R"({"payload":[1, 2],"unknown":{}})", &answer);
    EXPECT_EQ(serialize_to_json_string(answer), R"({"payload":[1,2],"what":"kept"})");
    deserialize_from_json_string(R"({"payload":null,"what":null})", &answer);
    EXPECT_FALSE(answer.payload.has_value() || answer.what.has_value());
    answer.payload = opaque_json_block::from_string("null");
    EXPECT_EQ(serialize_to_json_string(answer), R"({"payload":null})");
}

TEST(record, is_refused_with_the_path_of_the_member_that_does_not_fit) {
    const auto report = [](const std::string& readings) {
        return refusal<station::report_t>(R"({"stamp":1,"readings":)" + readings + "}");
    };
    EXPECT_EQ(report("[]"), "accepted");
    EXPECT_EQ(report("{}"), R"(in "readings": expected an array, found an object)");
    EXPECT_EQ(report("[7]"), R"(in "readings": in element 0: expected an object, found an integer)");
    EXPECT_EQ(report(R"([{"sensor":"a"}])"),
              R"(in "readings": in element 0: required member "offset" is missing)");
    EXPECT_EQ(report(R"([{"sensor":"a","offset":128}])"),
              R"(in "readings": in element 0: in "offset": number 128 is out of range)");
    EXPECT_EQ(report(R"([],"note":1)"), R"(in "note": expected a string, found an integer)");
    EXPECT_EQ(refusal<station::report_t>("{}"), R"(required member "stamp" is missing)");
    EXPECT_EQ(refusal<answer_t>("null"), "expected an object, found null");
}

TEST(record, is_refused_with_the_source_of_its_text_when_that_is_known) {
    const source_type_t source{"topic a.b"};
    EXPECT_EQ(refusal<answer_t>("[]", &source), "from topic a.b: expected an object, found an array");
    EXPECT_EQ(refusal<answer_t>("[", &source).find("from topic a.b: not valid JSON"), 0U);
}

TEST(record, is_made_for_an_empty_shared_pointer_and_filled_in_place_for_another) {
    std::shared_ptr<answer_t> shared;
    deserialize_from_json_string(R"({"what":"first"})", &shared);
    ASSERT_TRUE(shared);
    const answer_t* const place = shared.get();
    deserialize_from_json_string(R"({"payload":0})", &shared);
    EXPECT_EQ(shared.get(), place);
    EXPECT_EQ(serialize_to_json_string(shared), R"({"payload":0,"what":"first"})");
}

template <typename T>
struct integer_member : testing::Test {};
using integers = testing::Types<signed char, unsigned char, short, unsigned short, int, unsigned, long,
                                unsigned long, long long, unsigned long long>;
TYPED_TEST_SUITE(integer_member, integers);

TYPED_TEST(integer_member, holds_its_whole_range_and_refuses_what_lies_beyond) {
    for (const TypeParam limit :
         {std::numeric_limits<TypeParam>::min(), std::numeric_limits<TypeParam>::max()}) {
        TypeParam out{};
        deserialize_from_json_string(serialize_to_json_string(limit), &out);
        EXPECT_EQ(out, limit);
    }
    if (sizeof(TypeParam) < 8) {
        EXPECT_NE(refusal<TypeParam>("4294967296").find("4294967296 is out of range"), std::string::npos);
        EXPECT_NE(refusal<TypeParam>("-4294967297").find("out of range"), std::string::npos);
    }
    EXPECT_EQ(refusal<TypeParam>("-1") == "accepted", std::is_signed_v<TypeParam>);
    for (const char* json : {"1.0", "true", "\"1\"", "18446744073709551616"})
        EXPECT_NE(refusal<TypeParam>(json).find("expected an integer"), std::string::npos) << json;
}

TEST(number_member, takes_integers_and_refuses_what_its_type_cannot_hold) {
    double number = 0;
    deserialize_from_json_string("-3", &number);
    EXPECT_EQ(number, -3);
    EXPECT_EQ(refusal<double>("1e300"), "accepted");
    EXPECT_EQ(refusal<float>("1e300"), "number 1e+300 is out of range");
}

TEST(bad_deserialization_source, has_the_type_name_that_peers_compare_with) {
    EXPECT_STREQ(typeid(bad_deserialization_source).name(), "N6tolvan5sedes2v126bad_deserialization_sourceE");
}

TEST(uuid, is_nil_at_first_and_different_each_time_it_is_randomized) {
    tolvan::uuid_v1 one;
    tolvan::uuid_v1 other;
    EXPECT_EQ(std::to_string(one), "00000000-0000-0000-0000-000000000000");
    one.randomize();
    other.randomize();
    EXPECT_NE(std::to_string(one), std::to_string(other));
    const std::string text = std::to_string(one);
    EXPECT_EQ(text.size(), 36U);
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef-"), std::string::npos);
}

}  // namespace

#include <gmock/gmock.h>

#include "observing/request_line.hpp"
#include "observing/request_pairs.hpp"
#include "observing/topic_rates.hpp"

namespace tolvan::vesk::tool {
namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;
using fate = seen_request::fate;

const clock::time_point start{1'000'000s};

std::string envelope(const std::string& reply_topic, bool reply_needed = true) {
    return R"({"replyTopic": ")" + reply_topic + R"(", "replyNeeded": )" + (reply_needed ? "true" : "false") +
           R"(, "payload": [{}]})";
}

class request_pairing : public testing::Test {
  protected:
    void see(const std::string& topic, const std::string& data, clock::duration at = 0s) {
        pairs.feed({topic, data, {}}, start + at);
    }

    std::vector<seen_request> ended;
    request_pairs pairs{30s, [this](const seen_request& request) { ended.push_back(request); }};
};

TEST_F(request_pairing, tells_each_fate_when_it_is_known) {
    struct exchange {
        bool reply_needed;
        std::vector<std::string> answers;
        fate how;
        std::string nack_text;
    };
    const exchange exchanges[] = {
        {true, {"{}", R"({"payload":0})"}, fate::reply, ""},
        {true, {R"({"payload":null,"xWhat":null})", R"( {"payload" : {"xWhat":"deep"}} )"}, fate::reply, ""},
        {true, {"{}", "{}", R"({"xTypeId":"any","xWhat":"no water","payload":1})"}, fate::nack, "no water"},
        {true, {R"({"payload":1,"xWhat":""})"}, fate::nack, ""},
        {false, {"{}"}, fate::acknowledged, ""},
        {false, {R"({"payload":1})"}, fate::reply, ""},
        {true, {}, fate::no_answer, ""},
        {true, {"{}", "{}"}, fate::no_reply, ""},
        {true, {"{}", R"({"payload":1)"}, fate::unreadable, ""},
        {true, {R"({"xWhat":5})"}, fate::unreadable, ""},
        {true, {"[]"}, fate::unreadable, ""},
        {true, {std::string(300, '[')}, fate::unreadable, ""},
        {true, {"no json", R"({"payload":1})"}, fate::reply, ""},
    };
    for (const exchange& each : exchanges) {
        ended.clear();
        see("svc.get", envelope("svc:client.reply.7", each.reply_needed));
        for (const auto& answer : each.answers) see("client.reply.7", answer, 14s);
        pairs.expire(start + 14s);
        const bool waits =
            each.how == fate::no_reply || each.how == fate::no_answer || each.how == fate::unreadable;
        EXPECT_EQ(pairs.in_flight(), waits ? 1 : 0);
        pairs.expire(start + (each.how == fate::no_answer ? 15s : 44s));
        ASSERT_EQ(ended.size(), 1) << testing::PrintToString(each.answers);
        EXPECT_EQ(ended[0].how, each.how) << testing::PrintToString(each.answers);
        EXPECT_EQ(ended[0].nack_text, each.nack_text);
        EXPECT_EQ(ended[0].id(), "7");
    }
}

TEST_F(request_pairing, follows_an_id_that_its_client_uses_again) {
    see("svc.get", envelope("c.reply.1"));
    see("svc.set", envelope("c.reply.1"), 1s);
    see("c.reply.1", R"({"payload":1})", 2s);
    see("c.reply.1", R"({"payload":2})", 2s);  // of a second server
    ASSERT_EQ(ended.size(), 2);
    EXPECT_EQ(ended[0].how, fate::given_up);
    EXPECT_EQ(ended[1].topic, "svc.set");
    EXPECT_EQ(ended[1].to_answer, 1s);
}

TEST_F(request_pairing, passes_over_what_is_no_envelope_and_bounds_what_it_keeps) {
    for (const char* data :
         {"", "[]", R"({"replyTopic":1,"replyNeeded":true})", R"(["replyTopic"])",
          R"({"payload":{"replyTopic":"a.1","replyNeeded":true}})", R"({"replyTopic":"a.1")"})
        see("svc.get", data);
    see("svc.get", R"({"payload":)" + std::string(1'000'000, '[') + R"("replyTopic")");
    EXPECT_EQ(pairs.in_flight(), 0);
    for (std::size_t i = 0; i < request_pairs::most_in_flight + 3; ++i)
        see("svc.get", envelope("c.reply." + std::to_string(i)));
    EXPECT_EQ(pairs.in_flight(), request_pairs::most_in_flight);
    EXPECT_EQ(pairs.left_out(), 3);
}

TEST(request_line, has_no_control_character_of_a_peer_and_is_json_for_programs) {
    const seen_request request{
        .topic = "svc.a.b", .reply_topic = "c.reply.9", .how = fate::nack, .nack_text = "\x1b[2J\n"};
    EXPECT_THAT(as_line(request, {}, 30s), testing::EndsWith(R"(svc.a.b 9  NACK: \x1b[2J\x0a)"));
    EXPECT_THAT(as_json(request, {}), testing::HasSubstr(R"("server":"svc","command":"a.b","id":"9")"));
}

TEST(topic_rates, counts_intervals_segments_and_ages_and_ignores_stamps_of_the_future) {
    topic_rates rates(2, start);
    const std::int64_t now_ms = 1'000'000'000;
    for (int i = 0; i < 100; ++i) rates.feed({"a.b.c", "12345", now_ms - i}, start);
    rates.feed({"a.b", "", now_ms + 1}, start);
    rates.feed({"a", "", {}}, start);
    auto first = rates.take_interval(start + 2s);
    ASSERT_EQ(first.rows.size(), 2);
    const auto& row = first.rows[first.rows[0].topic == "a.b" ? 0 : 1];
    EXPECT_EQ(row.messages, 101);
    EXPECT_EQ(row.messages_per_second, 50.5);
    EXPECT_EQ(row.bytes_per_second, 250);
    EXPECT_EQ(row.since_last, 2s);
    EXPECT_EQ(row.age_p50_ms, 51);  // of the bin from 48 to 51
    EXPECT_EQ(row.age_p99_ms, 103);
    EXPECT_EQ(first.total.messages, 102);
    EXPECT_EQ(rates.take_interval(start + 3s).total.messages_per_second, 0);
}

TEST(topic_rates, has_one_row_for_all_topics_that_memory_is_not_meant_for) {
    topic_rates rates(0, start);
    const std::string long_topic(topic_rates::most_topic_bytes / 2, 'x');
    for (const char* end : {"1", "2", "3", "4"}) rates.feed({long_topic + end, "", {}}, start);
    std::vector<std::uint64_t> counts;
    for (const auto& row : rates.take_interval(start + 1s).rows) counts.push_back(row.messages);
    EXPECT_THAT(counts, testing::UnorderedElementsAre(1, 3));
}

}  // namespace
}  // namespace tolvan::vesk::tool

#include <cstring>

#include "tests/persist/persist_fixture.h"

namespace {

using zeb::PERSIST_MSGS;
using zeb::PERSIST_SESSION;
using zeb::PERSIST_SUBS;
using zeb_test::file_content;
using zeb_test::loaded;
using zeb_test::new_record;
using zeb_test::push_msg;
using zeb_test::push_sub;
using zeb_test::put_file;
using zeb_test::record_ptr;

class session_file : public zeb_test::persist_fixture {
  protected:
    // Written beside `subs` subscriptions, whose share of the buffer makes room for the session's text.
    std::string written(const record_ptr &rec, int subs) {
        while (rec->sub_count < subs) push_sub(rec.get(), "f", 0);
        zeb::persist_mark(rec.get(), PERSIST_SESSION | PERSIST_SUBS);
        return file_content(session_file::persist_fixture::session_file(rec->client_id));
    }
    std::string path_of(const char *id) { return persist_fixture::session_file(id); }
};

record_ptr record_with_will() {
    record_ptr rec = new_record("c1");
    rec->clean_start = 1;
    rec->session_expiry_interval = 4294967295u;
    rec->session_expiry_deadline = 18446744073709551615u;
    rec->last_online = 1700000000;
    rec->will_flag = 1;
    strcpy(rec->will_topic, "w/t");
    rec->will_qos = 2;
    rec->will_len = 3;
    memcpy(rec->will_payload, "\x00\xffz", 3);
    rec->will_delay_interval = 5;
    rec->will_msg_expiry_interval = 6;
    rec->will_payload_format = 1;
    strcpy(rec->will_content_type, "text");
    strcpy(rec->will_response_topic, "r/t");
    rec->will_correlation_len = 7;
    return rec;
}

constexpr char k_whole_text[] =
    R"({"client_id":"c1","clean_session":false,"clean_start":true,"session_expiry_interval":4294967295,)"
    R"("session_expiry_deadline":18446744073709551615,"last_online":1700000000,"will_flag":true,)"
    R"("will_topic":"w/t","will_qos":2,"will_len":3,"will_payload":"00ff7a","will_delay_interval":5,)"
    R"("will_msg_expiry_interval":6,"will_payload_format":1,"will_content_type":"text",)"
    R"("will_response_topic":"r/t","will_correlation_len":7})";

TEST_F(session_file, is_written_key_by_key) {
    EXPECT_EQ(written(record_with_will(), 2), k_whole_text);
    EXPECT_EQ(writes(), 2u);
}

TEST_F(session_file, without_a_will_has_all_keys) {
    EXPECT_EQ(written(new_record("c"), 2),
              R"({"client_id":"c","clean_session":false,"clean_start":false,"session_expiry_interval":0,)"
              R"("session_expiry_deadline":0,"last_online":0,"will_flag":false,"will_topic":"","will_qos":0,)"
              R"("will_len":0,"will_payload":"","will_delay_interval":0,"will_msg_expiry_interval":0,)"
              R"("will_payload_format":0,"will_content_type":"","will_response_topic":"",)"
              R"("will_correlation_len":0})");
}

TEST_F(session_file, written_alone_is_cut_after_227_characters) {
    zeb::persist_mark(record_with_will().get(), PERSIST_SESSION);
    EXPECT_EQ(file_content(path_of("c1")), std::string(k_whole_text).substr(0, 227));
}

TEST_F(session_file, beside_one_subscription_is_cut_after_515_characters) {
    record_ptr rec = record_with_will();
    rec->will_len = 1000;
    const std::string text = written(rec, 1);
    EXPECT_EQ(text.size(), 515u);
    EXPECT_EQ(text.substr(0, 200), std::string(k_whole_text).substr(0, 200));
}

TEST_F(session_file, reads_back_everything_but_the_keys_that_nobody_reads) {
    (void)written(record_with_will(), 2);
    const record_ptr rec = loaded("c1");
    const record_ptr expected = record_with_will();
    EXPECT_EQ(rec->clean_start, 1);
    EXPECT_EQ(rec->session_expiry_interval, expected->session_expiry_interval);
    EXPECT_EQ(rec->session_expiry_deadline, expected->session_expiry_deadline);
    EXPECT_EQ(rec->last_online, 0u);
    EXPECT_EQ(rec->will_flag, 1);
    EXPECT_STREQ(rec->will_topic, "w/t");
    EXPECT_EQ(rec->will_qos, 2);
    EXPECT_EQ(rec->will_len, 3u);
    EXPECT_EQ(memcmp(rec->will_payload, expected->will_payload, sizeof rec->will_payload), 0);
    EXPECT_EQ(rec->will_delay_interval, 5u);
    EXPECT_EQ(rec->will_msg_expiry_interval, 6u);
    EXPECT_EQ(rec->will_payload_format, 1);
    EXPECT_STREQ(rec->will_content_type, "text");
    EXPECT_STREQ(rec->will_response_topic, "r/t");
    EXPECT_EQ(rec->will_correlation_len, 7u);
}

TEST_F(session_file, cut_in_a_text_gives_back_the_keys_before_it) {
    record_ptr rec = record_with_will();
    rec->session_expiry_deadline = 9;
    rec->last_online = 170000;  // the text ends behind four of the payload's digits
    zeb::persist_mark(rec.get(), PERSIST_SESSION);
    record_ptr back = loaded("c1");
    EXPECT_EQ(back->session_expiry_deadline, 9u);
    EXPECT_EQ(back->will_flag, 1);
    EXPECT_STREQ(back->will_topic, "w/t");
    EXPECT_EQ(back->will_qos, 2);
    EXPECT_EQ(back->will_len, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(back->will_payload), 3), std::string(3, '\0'));
    EXPECT_EQ(back->will_delay_interval, 0u);
    EXPECT_EQ(back->will_correlation_len, 0u);

    memset(rec->will_topic, 'w', 200);
    zeb::persist_mark(rec.get(), PERSIST_SESSION);
    back = loaded("c1");
    EXPECT_EQ(back->session_expiry_interval, 4294967295u);
    EXPECT_EQ(back->will_flag, 1);
    EXPECT_STREQ(back->will_topic, "");
    EXPECT_EQ(back->will_len, 0u);
}

TEST_F(session_file, a_will_of_2000_bytes_has_its_length_and_1024_bytes_of_payload) {
    record_ptr rec = record_with_will();
    rec->will_len = 2000;
    memset(rec->will_payload, 0xab, sizeof rec->will_payload);
    const std::string text = written(rec, 10);
    std::string digits;
    for (int i = 0; i < 1024; ++i) digits += "ab";
    EXPECT_NE(text.find("\"will_len\":2000,\"will_payload\":\"" + digits + "\",\"will_delay_interval\":5,"),
              std::string::npos);
}

TEST_F(session_file, only_its_first_2047_bytes_are_read) {
    const std::string head = R"({"session_expiry_interval":7,)";
    const std::string filler(2047 - head.size() - 25, ' ');
    put_file(path_of("c"), head + filler + R"("will_delay_interval":1234)");
    const record_ptr rec = loaded("c");
    EXPECT_EQ(rec->session_expiry_interval, 7u);
    EXPECT_EQ(rec->will_delay_interval, 123u);
}

TEST_F(session_file, key_order_does_not_matter) {
    put_file(path_of("c"), R"("will_topic":"t","will_flag":true,"session_expiry_interval":3)");
    const record_ptr rec = loaded("c");
    EXPECT_EQ(rec->session_expiry_interval, 3u);
    EXPECT_STREQ(rec->will_topic, "t");
}

TEST_F(session_file, a_flag_is_true_when_the_word_stands_anywhere_behind_it) {
    put_file(path_of("c"), R"({"clean_start":false,"will_flag":false,"will_response_topic":"true"})");
    const record_ptr rec = loaded("c");
    EXPECT_EQ(rec->clean_start, 1);
    EXPECT_EQ(rec->will_flag, 1);
}

TEST_F(session_file, without_the_will_flag_no_will_is_read) {
    put_file(path_of("c"),
             R"({"will_flag":false,"will_topic":"t","will_qos":1,"will_len":2,"will_payload":"6162",)"
             R"("will_delay_interval":9})");
    const record_ptr rec = loaded("c");
    EXPECT_STREQ(rec->will_topic, "");
    EXPECT_EQ(rec->will_qos, 0);
    EXPECT_EQ(rec->will_len, 0u);
    EXPECT_EQ(rec->will_payload[0], 0);
    EXPECT_EQ(rec->will_delay_interval, 9u);
}

TEST_F(session_file, numbers_are_decimal_and_end_at_their_field) {
    struct row {
        const char *text;
        uint32_t interval;
        uint64_t deadline;
        uint8_t format;
    };
    constexpr row rows[] = {
        {R"("session_expiry_interval":12x)", 12, 0, 0},
        {R"("session_expiry_interval": 12)", 0, 0, 0},
        {R"("session_expiry_interval":-1)", 0, 0, 0},
        {R"("session_expiry_interval":4294967296)", 4294967295u, 0, 0},
        {R"("session_expiry_interval":)", 0, 0, 0},
        {R"("session_expiry_deadline":18446744073709551616)", 0, 18446744073709551615u, 0},
        {R"("session_expiry_deadline":99999999999999999999999999)", 0, 18446744073709551615u, 0},
        {R"("will_payload_format":256)", 0, 0, 255},
    };
    for (const row &r : rows) {
        put_file(path_of("c"), r.text);
        const record_ptr rec = loaded("c");
        EXPECT_EQ(rec->session_expiry_interval, r.interval) << r.text;
        EXPECT_EQ(rec->session_expiry_deadline, r.deadline) << r.text;
        EXPECT_EQ(rec->will_payload_format, r.format) << r.text;
    }
}

TEST_F(session_file, texts_are_cut_to_their_fields) {
    const std::string longer(300, 'x');
    put_file(path_of("c"), R"({"will_flag":true,"will_topic":")" + longer + R"(","will_content_type":")" +
                               longer + R"(","will_response_topic":")" + longer + R"("})");
    const record_ptr rec = loaded("c");
    EXPECT_EQ(rec->will_topic, std::string(255, 'x'));
    EXPECT_EQ(rec->will_content_type, std::string(63, 'x'));
    EXPECT_EQ(rec->will_response_topic, std::string(255, 'x'));
}

TEST_F(session_file, a_payload_ends_at_what_is_no_pair_of_digits) {
    put_file(path_of("c"), R"({"will_flag":true,"will_payload":"41Fg42"})");
    const record_ptr rec = loaded("c");
    EXPECT_EQ(rec->will_payload[0], 0x41);
    EXPECT_EQ(rec->will_payload[1], 0);
}

TEST_F(session_file, a_will_topic_that_carries_other_keys_is_left_out_with_its_will) {
    record_ptr rec = record_with_will();
    strcpy(rec->will_topic, R"(a","will_len":1024,"x":")");
    const std::string text = written(rec, 2);
    EXPECT_NE(text.find(R"("will_flag":false,"will_topic":"","will_qos":0,"will_len":0,"will_payload":"",)"),
              std::string::npos);
    EXPECT_EQ(loaded("c1")->will_flag, 0);
    EXPECT_TRUE(log_.has("WARN",
                         "[persist] not stored because it would not read back: client=c1, "
                         R"(will_topic=a","will_len":1024,"x":")"));
}

TEST_F(session_file, other_texts_with_quotes_are_left_out_alone) {
    record_ptr rec = record_with_will();
    strcpy(rec->will_content_type, "a\"b");
    strcpy(rec->will_response_topic, "\"");
    const std::string text = written(rec, 2);
    EXPECT_NE(text.find(R"("will_topic":"w/t")"), std::string::npos);
    EXPECT_NE(text.find(R"("will_content_type":"","will_response_topic":"","will_correlation_len":7})"),
              std::string::npos);
}

TEST_F(session_file, texts_that_would_set_the_will_flag_are_left_out) {
    for (const bool flag : {false, true}) {
        record_ptr rec = record_with_will();
        rec->clean_start = 0;
        rec->will_flag = flag ? 1 : 0;
        strcpy(rec->will_topic, "is/true");
        strcpy(rec->will_content_type, "true");
        strcpy(rec->will_response_topic, "untrue/t");
        const std::string text = written(rec, 2);
        EXPECT_EQ(text.find("is/true") != std::string::npos, flag);
        EXPECT_EQ(
            text.find(R"("will_content_type":"true","will_response_topic":"untrue/t")") != std::string::npos,
            flag);
        const record_ptr back = loaded("c1");
        EXPECT_EQ(back->will_flag, flag ? 1 : 0);
        EXPECT_STREQ(back->will_topic, flag ? "is/true" : "");
        EXPECT_EQ(back->will_delay_interval, 5u);
        EXPECT_EQ(back->will_correlation_len, 7u);
    }
    constexpr char line[] = "[persist] not stored because it would not read back: client=c1, ";
    for (const char *what :
         {"will_topic=is/true", "will_content_type=true", "will_response_topic=untrue/t"}) {
        const std::size_t at = log_.text().find(line + std::string(what));
        ASSERT_NE(at, std::string::npos) << what;
        EXPECT_EQ(log_.text().find(line + std::string(what), at + 1), std::string::npos) << what;
    }
}

TEST_F(session_file, a_will_that_loses_its_topic_takes_the_word_with_it) {
    record_ptr rec = record_with_will();
    rec->clean_start = 0;
    strcpy(rec->will_topic, "a\"b");
    strcpy(rec->will_content_type, "true");
    (void)written(rec, 2);
    EXPECT_EQ(loaded("c1")->will_flag, 0);
}

TEST_F(session_file, an_identifier_with_a_quote_is_written_as_it_is) {
    (void)written(new_record("a\"b"), 2);
    EXPECT_EQ(file_content(path_of("a\"b")).substr(0, 21), R"({"client_id":"a"b","c)");
}

TEST_F(session_file, an_identifier_that_carries_a_key_is_not_written) {
    const record_ptr rec = new_record("will_flag\":true");
    (void)written(rec, 2);
    EXPECT_EQ(file_content(path_of(rec->client_id)).substr(0, 32), R"({"client_id":"","clean_session":)");
    EXPECT_EQ(loaded(rec->client_id)->will_flag, 0);
    EXPECT_TRUE(log_.has("WARN",
                         "[persist] not stored because it would not read back: "
                         "client=will_flag\":true, client_id=will_flag\":true"));
}

TEST_F(session_file, a_missing_file_leaves_the_record_alone) {
    record_ptr rec = record_with_will();
    rec->sub_count = 2;
    rec->msg_count = 3;
    bool found = true;
    EXPECT_EQ(zeb::persist_load_found(rec.get(), &found), 0);
    EXPECT_FALSE(found);
    EXPECT_EQ(rec->session_expiry_interval, 4294967295u);
    EXPECT_STREQ(rec->will_topic, "w/t");
    EXPECT_EQ(rec->sub_count, 2);
    EXPECT_EQ(rec->msg_count, 3);
    EXPECT_EQ(reads(), 0u);
}

TEST_F(session_file, any_of_the_three_files_makes_a_stored_session) {
    for (const char *dir : {"session", "subscription", "message"}) {
        const std::string id = std::string("only-") + dir;
        put_file(root_ / dir / (id + ".json"), "");
        const uint64_t before = reads();
        bool found = false;
        EXPECT_EQ(zeb::persist_load_found(new_record(id).get(), &found), 0);
        EXPECT_TRUE(found) << dir;
        EXPECT_EQ(reads(), before + 1);
    }
}

TEST_F(session_file, bad_arguments_of_load_are_refused) {
    bool found = true;
    EXPECT_EQ(zeb::persist_load(nullptr), -1);
    EXPECT_EQ(zeb::persist_load(new_record("").get()), -1);
    EXPECT_EQ(zeb::persist_load_found(nullptr, &found), -1);
    EXPECT_FALSE(found);
}

TEST_F(session_file, nothing_is_written_for_a_clean_session_or_without_an_identifier) {
    record_ptr rec = new_record("c");
    rec->clean_session = 1;
    push_msg(rec.get(), 1, "t", "p", 0);
    zeb::persist_mark(rec.get(), PERSIST_SESSION | PERSIST_MSGS);
    zeb::persist_flush_single(rec.get(), PERSIST_SESSION);
    zeb::persist_mark(new_record("").get(), PERSIST_SESSION);
    zeb::persist_mark(nullptr, PERSIST_SESSION);
    zeb::persist_flush_single(nullptr, PERSIST_SESSION);
    EXPECT_EQ(writes(), 0u);
    EXPECT_EQ(zeb_test::tree(root_).size(), 3u);
}

}  // namespace

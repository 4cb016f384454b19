#include "tests/persist/persist_fixture.h"

namespace {

namespace fs = std::filesystem;
using zeb::PERSIST_SESSION;
using zeb::PERSIST_SUBS;
using zeb_test::file_content;
using zeb_test::loaded;
using zeb_test::new_record;
using zeb_test::push_sub;
using zeb_test::put_file;
using zeb_test::record_ptr;

class subscription_file : public zeb_test::persist_fixture {
  protected:
    std::string written(const record_ptr &rec) {
        zeb::persist_mark(rec.get(), PERSIST_SUBS);
        return file_content(subs_file(rec->client_id));
    }
};

TEST_F(subscription_file, lists_the_filters_in_order) {
    record_ptr rec = new_record("c");
    push_sub(rec.get(), "a/+/#", 2);
    push_sub(rec.get(), "温度", 0);
    EXPECT_EQ(written(rec), R"({"subs":[{"topic":"a/+/#","qos":2},{"topic":"温度","qos":0}]})");
    EXPECT_EQ(writes(), 1u);
}

TEST_F(subscription_file, is_read_back) {
    record_ptr rec = new_record("c");
    push_sub(rec.get(), "a", 1);
    push_sub(rec.get(), "b\"}],{x", 2);
    (void)written(rec);
    const record_ptr back = loaded("c");
    ASSERT_EQ(back->sub_count, 2);
    EXPECT_STREQ(back->subs[0].topic, "a");
    EXPECT_EQ(back->subs[0].qos, 1);
    EXPECT_STREQ(back->subs[1].topic, "b\"}],{x");
    EXPECT_EQ(back->subs[1].qos, 2);
    EXPECT_EQ(reads(), 1u);
    EXPECT_TRUE(log_.has("INFO", "[persist] ✅ 恢复订阅成功: c 共 2 条"));
}

TEST_F(subscription_file, stays_when_the_list_is_empty) {
    record_ptr rec = new_record("c");
    push_sub(rec.get(), "a", 1);
    zeb::persist_mark(rec.get(), PERSIST_SESSION | PERSIST_SUBS);
    EXPECT_TRUE(fs::exists(session_file("c")));
    const std::string before = file_content(subs_file("c"));
    rec->sub_count = 0;
    EXPECT_EQ(written(rec), before);
    EXPECT_EQ(before, R"({"subs":[{"topic":"a","qos":1}]})");
    EXPECT_EQ(writes(), 2u);
}

TEST_F(subscription_file, holds_64_filters_of_full_length) {
    record_ptr rec = new_record("c");
    std::string expected = "{\"subs\":[";
    for (int i = 0; i < zeb::PERSIST_MAX_SUBS; ++i) {
        const std::string topic(255, static_cast<char>('A' + i % 26));
        push_sub(rec.get(), topic, 255);
        expected += (i == 0 ? "" : ",") + ("{\"topic\":\"" + topic) + "\",\"qos\":255}";
    }
    rec->sub_count = 1000;  // nothing is read behind the array
    EXPECT_EQ(written(rec), expected + "]}");
}

TEST_F(subscription_file, only_its_first_2047_bytes_are_read) {
    std::string text = "{\"subs\":[";
    for (int i = 0; i < 64; ++i) text += "{\"topic\":\"" + std::string(63, 'f') + "\",\"qos\":1},";
    put_file(subs_file("c"), text);
    // 9 bytes and 25 entries of 83 bytes are 2084: the 25th has its topic, but neither its end nor its QoS.
    EXPECT_EQ(loaded("c")->sub_count, 24);
}

TEST_F(subscription_file, malformed_text_gives_what_can_be_found) {
    struct row {
        const char *text;
        int count;
        const char *first;
        int qos;
    };
    constexpr row rows[] = {
        {"", 0, "", 0},
        {R"({"subs":[]})", 0, "", 0},
        {R"({"topic":"a","qos":1})", 0, "", 0},
        {R"({"subs":[{"topic":"a","qos":1)", 1, "a", 1},
        {R"({"subs":[{"topic":"a","qos":)", 1, "a", 0},
        {R"({"subs":[{"topic":"a","qos":x)", 1, "a", 0},
        {R"({"subs":[{"topic":"a","qos":999)", 1, "a", 255},
        {R"({"subs":[{"topic":"a" ,"qos":1})", 0, "", 0},
        {R"({"subs":[{"topic":"a","topic":"b","qos":1})", 1, R"(a","topic":"b)", 1},
        {R"({"subs": [{"topic":"a","qos":1}]})", 0, "", 0},
        {R"({"subs":[{"topic":"","qos":2}]})", 1, "", 2},
    };
    for (const row &r : rows) {
        put_file(subs_file("c"), r.text);
        record_ptr rec = new_record("c");
        rec->sub_count = 5;
        ASSERT_EQ(zeb::persist_load(rec.get()), 0);
        EXPECT_EQ(rec->sub_count, r.count) << r.text;
        if (r.count == 0) continue;
        EXPECT_STREQ(rec->subs[0].topic, r.first) << r.text;
        EXPECT_EQ(rec->subs[0].qos, r.qos) << r.text;
    }
}

TEST_F(subscription_file, a_text_ends_at_its_first_nul) {
    using namespace std::string_literals;
    put_file(subs_file("c"), "{\"subs\":[{\"topic\":\"a\",\"qos\":1},\0{\"topic\":\"b\",\"qos\":1}]}"s);
    EXPECT_EQ(loaded("c")->sub_count, 1);
}

TEST_F(subscription_file, at_most_64_entries_are_read_and_topics_are_cut) {
    std::string text = "{\"subs\":[\"topic\":\"" + std::string(400, 't') + "\",\"qos\":1";
    for (int i = 0; i < 100; ++i) text += R"("topic":"","qos":2)";
    put_file(subs_file("c"), text);
    const record_ptr rec = loaded("c");
    EXPECT_EQ(rec->sub_count, 64);
    EXPECT_EQ(rec->subs[0].topic, std::string(255, 't'));
    EXPECT_EQ(rec->subs[63].qos, 2);
}

TEST_F(subscription_file, a_filter_that_carries_another_entry_is_left_out) {
    record_ptr rec = new_record("c");
    push_sub(rec.get(), "a", 1);
    push_sub(rec.get(), R"(x","qos":0},{"topic":"secret/#)", 2);
    push_sub(rec.get(), "b", 2);
    EXPECT_EQ(written(rec), R"({"subs":[{"topic":"a","qos":1},{"topic":"b","qos":2}]})");
    EXPECT_TRUE(log_.has("WARN",
                         "[persist] not stored because it would not read back: client=c, "
                         R"(filter=x","qos":0},{"topic":"secret/#)"));
}

TEST_F(subscription_file, a_first_filter_that_is_left_out_leaves_no_comma) {
    record_ptr rec = new_record("c");
    push_sub(rec.get(), R"(","qos":)", 2);
    push_sub(rec.get(), "b", 2);
    EXPECT_EQ(written(rec), R"({"subs":[{"topic":"b","qos":2}]})");
    rec->sub_count = 1;
    EXPECT_EQ(written(rec), R"({"subs":[]})");
}

TEST_F(subscription_file, client_only_tells_whether_it_is_there) {
    record_ptr rec = new_record("c");
    rec->clean_session = 1;
    EXPECT_EQ(zeb::persist_load_client_only(nullptr), -1);
    EXPECT_EQ(zeb::persist_load_client_only(new_record("").get()), -1);
    EXPECT_EQ(zeb::persist_load_client_only(rec.get()), -4);
    EXPECT_EQ(rec->clean_session, 1);
    EXPECT_EQ(reads(), 0u);
    put_file(subs_file("c"), R"({"subs":[{"topic":"a","qos":1}]})");
    EXPECT_EQ(zeb::persist_load_client_only(rec.get()), 0);
    EXPECT_EQ(rec->clean_session, 0);
    EXPECT_EQ(rec->sub_count, 0);
    EXPECT_EQ(reads(), 1u);
}

}  // namespace

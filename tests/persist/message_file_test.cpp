#include <random>

#include "tests/persist/persist_fixture.h"

namespace {

using zeb::PERSIST_MSGS;
using zeb_test::file_content;
using zeb_test::loaded;
using zeb_test::new_record;
using zeb_test::payload_of;
using zeb_test::push_msg;
using zeb_test::put_file;
using zeb_test::record_ptr;

class message_file : public zeb_test::persist_fixture {
  protected:
    std::string written(const record_ptr &rec) {
        zeb::persist_mark(rec.get(), PERSIST_MSGS);
        return file_content(msgs_file(rec->client_id));
    }
};

TEST_F(message_file, lists_the_messages_with_their_payload_in_hexadecimal) {
    record_ptr rec = new_record("c");
    push_msg(rec.get(), 65535, "a/b", std::string("\x00\x9F{\"", 4), 2);
    push_msg(rec.get(), 1, "t", "", 0);
    EXPECT_EQ(written(rec), R"({"msgs":[{"msgid":65535,"qos":2,"topic":"a/b","payload":"009f7b22"},)"
                            R"({"msgid":1,"qos":0,"topic":"t","payload":""}]})");
    EXPECT_EQ(writes(), 1u);
}

TEST_F(message_file, is_written_for_an_empty_queue) {
    EXPECT_EQ(written(new_record("c")), R"({"msgs":[]})");
}

TEST_F(message_file, is_read_back) {
    record_ptr rec = new_record("c");
    push_msg(rec.get(), 7, "a{b", "one", 1);
    push_msg(rec.get(), 8, "温度", "two", 2);
    (void)written(rec);
    rec = new_record("c");
    rec->msgs[0].stored_at = 5;
    ASSERT_EQ(zeb::persist_load(rec.get()), 0);
    ASSERT_EQ(rec->msg_count, 2);
    EXPECT_EQ(rec->msgs[0].msgid, 7);
    EXPECT_EQ(rec->msgs[0].qos, 1);
    EXPECT_STREQ(rec->msgs[0].topic, "a{b");
    EXPECT_EQ(payload_of(rec->msgs[0]), "one");
    EXPECT_EQ(rec->msgs[0].stored_at, 0);
    EXPECT_EQ(rec->msgs[1].msgid, 8);
    EXPECT_STREQ(rec->msgs[1].topic, "温度");
    EXPECT_EQ(payload_of(rec->msgs[1]), "two");
    EXPECT_EQ(reads(), 1u);
}

TEST_F(message_file, holds_a_full_queue_of_the_longest_messages) {
    record_ptr rec = new_record("c");
    std::string expected = "{\"msgs\":[";
    const std::string topic(255, 't');
    std::string digits;
    for (int i = 0; i < 1024; ++i) digits += "70";
    for (int i = 0; i < zeb::PERSIST_MAX_MSGS; ++i) {
        push_msg(rec.get(), 65535, topic, std::string(1024, 'p'), 255);
        rec->msgs[i].payload_len = 5000;  // nothing is read behind the payload
        expected += (i == 0 ? "" : ",") + std::string(R"({"msgid":65535,"qos":255,"topic":")") + topic +
                    "\",\"payload\":\"" + digits + "\"}";
    }
    rec->msg_count = 1000;
    EXPECT_EQ(written(rec), expected + "]}");
}

TEST_F(message_file, is_read_only_as_far_as_its_first_4095_bytes) {
    const std::string object = R"({"msgid":5,"qos":1,"topic":"t","payload":"6162"},)";  // 49 bytes
    std::string text = "{\"msgs\":[";
    while (text.size() < 5000) text += object;
    put_file(msgs_file("c"), text);
    const record_ptr rec = loaded("c");
    EXPECT_EQ(rec->msg_count, (4095 - 9) / 49);  // the next is cut, and skipped
    EXPECT_EQ(payload_of(rec->msgs[rec->msg_count - 1]), "ab");
}

TEST_F(message_file, an_object_is_cut_after_1023_characters) {
    record_ptr rec = new_record("c");
    push_msg(rec.get(), 1, "t", std::string(1024, 'p'), 1);
    push_msg(rec.get(), 2, "t", "short", 1);
    (void)written(rec);
    const record_ptr back = loaded("c");
    ASSERT_EQ(back->msg_count, 2);
    EXPECT_EQ(payload_of(back->msgs[0]), std::string((1023 - 42) / 2, 'p'));
    EXPECT_EQ(payload_of(back->msgs[1]), "short");
}

TEST_F(message_file, without_its_node_is_reported) {
    for (const char *text : {"", "{}", R"({"msgs": [{"msgid":1,"qos":1,"topic":"t","payload":""}]})"}) {
        put_file(msgs_file("c"), text);
        record_ptr rec = new_record("c");
        rec->msg_count = 9;
        ASSERT_EQ(zeb::persist_load(rec.get()), 0);
        EXPECT_EQ(rec->msg_count, 0);
    }
    EXPECT_TRUE(log_.has("WARN", "[persist][定位] 消息格式错误：找不到 msgs 节点"));
}

TEST_F(message_file, a_missing_file_is_named) {
    (void)loaded("nobody");
    EXPECT_TRUE(log_.has("DEBUG", "[persist][定位] 无离线消息文件：" + msgs_file("nobody").string()));
}

TEST_F(message_file, an_object_without_all_four_keys_is_skipped) {
    put_file(msgs_file("c"), R"({"msgs":[{"qos":1,"topic":"t","payload":"61"},)"
                             R"({"msgid":1,"topic":"t","payload":"61"},{"msgid":1,"qos":1,"payload":"61"},)"
                             R"({"msgid":1,"qos":1,"topic":"t"},{"msgid":1,"qos":1,"topic":"t,"payload":61},)"
                             R"({},{"payload":"zz","topic":"last","qos":2,"msgid":70000}]})");
    const record_ptr rec = loaded("c");
    ASSERT_EQ(rec->msg_count, 1);
    EXPECT_STREQ(rec->msgs[0].topic, "last");
    EXPECT_EQ(rec->msgs[0].msgid, 65535);
    EXPECT_EQ(rec->msgs[0].qos, 2);
    EXPECT_EQ(rec->msgs[0].payload_len, 0u);
}

TEST_F(message_file, a_topic_that_would_not_read_back_is_left_out) {
    struct row {
        const char *topic;
        bool stored;
    };
    constexpr row rows[] = {
        {R"(t","payload":"6666"},{"msgid":9,"qos":2,"topic":"secret)", false},
        {"a\"b", false},
        {"a}b", false},
        {"a{b", true},
        {"a:b,c [d]\\", true},
        {"\x01\xff\xc3", true},
        {"\"", false},
    };
    for (const row &r : rows) {
        record_ptr rec = new_record("c");
        push_msg(rec.get(), 1, r.topic, "pay", 1);
        push_msg(rec.get(), 2, "behind", "load", 1);
        (void)written(rec);
        const record_ptr back = loaded("c");
        ASSERT_EQ(back->msg_count, r.stored ? 2 : 1) << r.topic;
        EXPECT_STREQ(back->msgs[0].topic, r.stored ? r.topic : "behind");
        EXPECT_EQ(payload_of(back->msgs[r.stored ? 1 : 0]), "load");
    }
    EXPECT_TRUE(
        log_.has("WARN", "[persist] not stored because it would not read back: client=c, topic=a\"b"));
}

// Whatever the bytes, a load stays within the record, and what it gives can be written and read again.
TEST_F(message_file, mutated_files_load_and_what_was_loaded_reads_back) {
    zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL);
    record_ptr rec = new_record("c");
    push_msg(rec.get(), 1, "a/b", "payload", 1);
    push_msg(rec.get(), 2, "c", "\x01\x02", 2);
    const std::string golden = written(rec);
    std::minstd_rand random(1);
    constexpr std::string_view pieces[] = {
        "{", "}", "\"", ",", ":", "\"topic\":\"", "\"msgs\":[", std::string_view("\0", 1), "a1"};
    for (int round = 0; round < 1000; ++round) {
        std::string text = golden;
        for (int change = 0; change < 4; ++change) {
            const std::string_view piece = pieces[random() % std::size(pieces)];
            const std::size_t at = random() % text.size();
            text.replace(at, std::min<std::size_t>(random() % 3, text.size() - at), piece);
        }
        put_file(msgs_file("c"), text);
        const record_ptr first = loaded("c");
        ASSERT_LE(first->msg_count, zeb::PERSIST_MAX_MSGS);
        ASSERT_GE(first->msg_count, 0);
        zeb::persist_flush_single(first.get(), PERSIST_MSGS);
        const record_ptr second = loaded("c");
        ASSERT_EQ(second->msg_count, first->msg_count) << text;
        for (int i = 0; i < first->msg_count; ++i) {
            EXPECT_STREQ(second->msgs[i].topic, first->msgs[i].topic);
            EXPECT_EQ(payload_of(second->msgs[i]), payload_of(first->msgs[i]));
        }
    }
}

}  // namespace

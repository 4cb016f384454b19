#include <set>

#include "tests/persist/persist_fixture.h"

namespace {

namespace fs = std::filesystem;
using zeb_test::add_offline;
using zeb_test::file_content;
using zeb_test::loaded;
using zeb_test::new_record;
using zeb_test::payload_of;
using zeb_test::put_file;
using zeb_test::record_ptr;

class offline : public zeb_test::persist_fixture {
  protected:
    // The payloads in the file, in order: their digits are those of numbers here.
    std::vector<std::string> stored(const std::string &id) {
        std::vector<std::string> out;
        const std::string text = file_content(msgs_file(id));
        constexpr std::string_view key = "\"payload\":\"";
        for (std::size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
            const std::size_t start = at + key.size();
            out.push_back(text.substr(start, text.find('"', start) - start));
        }
        return out;
    }
};

std::string hex_of(const std::string &payload) {
    std::string out;
    char pair[3];
    for (const char c : payload) {
        snprintf(pair, sizeof pair, "%02x", static_cast<unsigned char>(c));
        out += pair;
    }
    return out;
}

TEST_F(offline, a_message_is_appended_to_the_queue) {
    srand(7);
    const int first_id = rand() % 65535 + 1;
    const int second_id = rand() % 65535 + 1;
    srand(7);
    add_offline("c", "t/1", "ab", 2);
    add_offline("c", "t/2", "c", 0);
    EXPECT_EQ(file_content(msgs_file("c")), R"({"msgs":[{"msgid":)" + std::to_string(first_id) +
                                                R"(,"qos":2,"topic":"t/1","payload":"6162"},)" +
                                                R"({"msgid":)" + std::to_string(second_id) +
                                                R"(,"qos":0,"topic":"t/2","payload":"63"}]})");
    EXPECT_FALSE(fs::exists(session_file("c")));
    EXPECT_FALSE(fs::exists(subs_file("c")));
    EXPECT_EQ(writes(), 2u);
    EXPECT_EQ(reads(), 1u);
}

TEST_F(offline, the_101st_message_drops_the_first_one) {
    std::vector<std::string> expected;
    for (int i = 1; i <= 101; ++i) {
        add_offline("c", "t", std::to_string(i));
        if (i > 1) expected.push_back(hex_of(std::to_string(i)));
        if (i == 100) {
            EXPECT_EQ(stored("c").size(), 100u);
        }
    }
    EXPECT_EQ(stored("c"), expected);
    EXPECT_TRUE(log_.has("WARN", "[persist][定位] 离线消息溢出，丢弃最早一条: c"));
}

TEST_F(offline, long_messages_keep_their_payload_while_others_are_added) {
    const std::string payload(1024, 'x');
    for (int i = 0; i < 5; ++i) add_offline("c", std::string(255, 't'), payload);
    EXPECT_EQ(stored("c"), std::vector<std::string>(5, hex_of(payload)));
}

TEST_F(offline, topic_and_payload_are_cut_to_their_fields) {
    add_offline("c", std::string(400, 't'), std::string(3000, 'x'));
    EXPECT_EQ(stored("c"), std::vector<std::string>{hex_of(std::string(1024, 'x'))});
    EXPECT_EQ(loaded("c")->msgs[0].topic, std::string(255, 't'));
}

TEST_F(offline, bad_arguments_do_nothing) {
    const uint8_t byte = 1;
    zeb::persist_add_offline_msg(nullptr, "t", &byte, 1, 0);
    zeb::persist_add_offline_msg("c", nullptr, &byte, 1, 0);
    zeb::persist_add_offline_msg("c", "t", nullptr, 1, 0);
    zeb::persist_add_offline_msg("c", "t", &byte, 0, 0);
    zeb::persist_add_offline_msg("c", "t", &byte, -1, 0);
    zeb::persist_add_offline_msg("", "t", &byte, 1, 0);
    EXPECT_EQ(zeb_test::tree(root_).size(), 3u);
    EXPECT_EQ(reads(), 0u);
}

TEST_F(offline, a_message_for_a_stored_session_makes_none) {
    const auto add = [](const char *topic) {
        const uint8_t byte = 'p';
        return zeb::persist_add_msg_to_stored("c", topic, &byte, 1, 1);
    };
    EXPECT_FALSE(add("t"));
    EXPECT_FALSE(add("a\"b"));
    EXPECT_EQ(zeb_test::tree(root_).size(), 3u);
    put_file(subs_file("c"), R"({"subs":[]})");
    EXPECT_TRUE(add("t"));
    EXPECT_TRUE(add("a\"b"));
    EXPECT_EQ(stored("c"), std::vector<std::string>{"70"});
    EXPECT_EQ(zeb::persist_remove("c"), 0);
    EXPECT_FALSE(add("t"));
    EXPECT_EQ(zeb_test::tree(root_).size(), 3u);
}

TEST_F(offline, message_identifiers_of_one_queue_differ_also_when_the_generator_repeats_itself) {
    std::set<int> ids;
    for (int i = 0; i < 60; ++i) {
        srand(7);
        add_offline("c", "t", "p", 0);
    }
    const record_ptr rec = loaded("c");
    ASSERT_EQ(rec->msg_count, 60);
    for (int i = 0; i < rec->msg_count; ++i) ids.insert(rec->msgs[i].msgid);
    EXPECT_EQ(ids.size(), 60u);
    EXPECT_EQ(ids.count(0), 0u);
}

TEST_F(offline, a_topic_that_would_not_read_back_costs_the_queue_nothing) {
    for (int i = 1; i <= 100; ++i) add_offline("c", "t", std::to_string(i));
    const std::string before = file_content(msgs_file("c"));
    add_offline("c", "a\"b", "p");
    EXPECT_EQ(file_content(msgs_file("c")), before);
    EXPECT_TRUE(
        log_.has("WARN", "[persist] not stored because it would not read back: client=c, topic=a\"b"));
}

TEST_F(offline, a_damaged_queue_is_replaced) {
    put_file(msgs_file("c"), "junk");
    add_offline("c", "t", "p");
    EXPECT_EQ(stored("c"), std::vector<std::string>{"70"});
}

TEST_F(offline, removing_takes_every_message_of_that_identifier_and_keeps_the_order) {
    record_ptr rec = new_record("c");
    int payload = 0;
    for (const uint16_t id : {3, 1, 3, 2, 3})
        zeb_test::push_msg(rec.get(), id, "t", std::to_string(++payload), 1);
    zeb::persist_mark(rec.get(), zeb::PERSIST_MSGS);
    EXPECT_EQ(zeb::persist_remove_offline_msg("c", 3), 0);
    EXPECT_EQ(stored("c"), (std::vector<std::string>{hex_of("2"), hex_of("4")}));
}

TEST_F(offline, removing_bad_arguments_is_refused) {
    EXPECT_EQ(zeb::persist_remove_offline_msg("c", 0), -1);
    EXPECT_EQ(zeb::persist_remove_offline_msg(nullptr, 1), -1);
    EXPECT_EQ(zeb::persist_remove_offline_msg("", 0), -1);
    EXPECT_EQ(zeb::persist_remove_offline_msg("", 1), -4);
    EXPECT_FALSE(fs::exists(msgs_file("c")));
}

TEST_F(offline, removing_an_unknown_identifier_rewrites_the_file_unchanged) {
    record_ptr rec = new_record("c");
    for (int i = 0; i < 100; ++i) zeb_test::push_msg(rec.get(), 5, "t", std::string(600, 'x'), 1);
    zeb::persist_mark(rec.get(), zeb::PERSIST_MSGS);
    const std::string before = file_content(msgs_file("c"));
    const uint64_t writes_before = writes();
    EXPECT_EQ(zeb::persist_remove_offline_msg("c", 6), 0);
    EXPECT_EQ(file_content(msgs_file("c")), before);
    EXPECT_EQ(writes(), writes_before + 1);
}

TEST_F(offline, removing_from_a_client_without_files_leaves_an_empty_queue) {
    EXPECT_EQ(zeb::persist_remove_offline_msg("c", 6), 0);
    EXPECT_EQ(file_content(msgs_file("c")), R"({"msgs":[]})");
}

TEST_F(offline, a_new_file_waits_for_the_removal_of_the_old_one_in_vain) {
    add_offline("c", "t", "p");
    EXPECT_EQ(clock_.slept_us(), 20000u);  // three attempts, 10 ms apart
    add_offline("c", "t", "p");
    EXPECT_EQ(clock_.slept_us(), 20000u);
}

TEST_F(offline, the_end_of_a_replay_takes_out_what_was_loaded_and_keeps_the_rest) {
    record_ptr rec = new_record("c");
    int payload = 0;
    for (const uint16_t id : {3, 1, 3, 2, 3})
        zeb_test::push_msg(rec.get(), id, "t", std::to_string(++payload), 1);
    zeb::persist_mark(rec.get(), zeb::PERSIST_MSGS);
    rec->msg_count = 3;
    const uint64_t reads_before = reads();
    EXPECT_EQ(zeb::persist_finish_replay(rec.get()), 2);
    EXPECT_EQ(stored("c"), (std::vector<std::string>{hex_of("4"), hex_of("5")}));
    EXPECT_EQ(reads(), reads_before);
    rec->msg_count = 5;
    EXPECT_EQ(zeb::persist_finish_replay(rec.get()), 0);
    EXPECT_EQ(file_content(msgs_file("c")), R"({"msgs":[]})");
}

TEST_F(offline, of_equal_messages_the_end_of_a_replay_takes_out_as_many_as_were_loaded) {
    record_ptr rec = new_record("c");
    for (int i = 0; i < 3; ++i) zeb_test::push_msg(rec.get(), 3, "t", "p", 1);
    zeb::persist_mark(rec.get(), zeb::PERSIST_MSGS);
    rec->msg_count = 2;
    EXPECT_EQ(zeb::persist_finish_replay(rec.get()), 1);
    EXPECT_EQ(stored("c").size(), 1u);
}

TEST_F(offline, the_end_of_a_replay_of_other_messages_changes_nothing_that_a_load_gives) {
    add_offline("c", "t", "p");
    const std::string before = file_content(msgs_file("c"));
    record_ptr rec = loaded("c");
    struct row {
        uint16_t msgid;
        const char *topic;
        const char *payload;
        uint8_t qos;
    };
    const auto id = rec->msgs[0].msgid;
    const row rows[] = {{static_cast<uint16_t>(id ^ 1), "t", "p", 1},
                        {id, "u", "p", 1},
                        {id, "t", "q", 1},
                        {id, "t", "pp", 1},
                        {id, "t", "p", 2}};
    for (const row &r : rows) {
        rec->msg_count = 0;
        zeb_test::push_msg(rec.get(), r.msgid, r.topic, r.payload, r.qos);
        EXPECT_EQ(zeb::persist_finish_replay(rec.get()), 1);
        EXPECT_EQ(file_content(msgs_file("c")), before);
    }
}

TEST_F(offline, what_no_load_gives_goes_with_the_end_of_a_replay) {
    put_file(msgs_file("c"), R"({"msgs":[{"filler":")" + std::string(5000, ' ') +
                                 R"(","msgid":3,"qos":1,"topic":"t","payload":"61"}]})");
    EXPECT_EQ(zeb::persist_finish_replay(loaded("c").get()), 0);
    EXPECT_EQ(file_content(msgs_file("c")), R"({"msgs":[]})");
}

TEST_F(offline, the_end_of_a_replay_refuses_bad_arguments_and_makes_no_file) {
    EXPECT_EQ(zeb::persist_finish_replay(nullptr), -1);
    EXPECT_EQ(zeb::persist_finish_replay(new_record("").get()), -1);
    EXPECT_EQ(zeb::persist_finish_replay(new_record("c").get()), 0);
    EXPECT_EQ(zeb_test::tree(root_).size(), 3u);
}

TEST_F(offline, the_end_of_a_replay_tells_when_it_cannot_be_written) {
    add_offline("c", "t", "p");
    const record_ptr rec = loaded("c");
    fs::create_directories(msgs_file("c").string() + ".tmp/in the way");
    EXPECT_EQ(zeb::persist_finish_replay(rec.get()), -2);
    EXPECT_EQ(stored("c").size(), 1u);
}

}  // namespace

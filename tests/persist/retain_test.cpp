#include <cstring>
#include <random>

#include "tests/persist/persist_fixture.h"

namespace {

namespace fs = std::filesystem;
using zeb::retain_msg;
using zeb_test::file_content;
using zeb_test::put_file;
using zeb_test::retain;
using zeb_test::retained;

using store = std::map<std::string, std::string>;

constexpr std::size_t k_record = 2336;

std::string bytes_of(const void *data, std::size_t size) {
    return {static_cast<const char *>(data), size};
}

std::string number(uint32_t value) {
    return bytes_of(&value, sizeof value);
}

// A record as the layout says, byte by byte.
std::string record(const std::string &topic, const std::string &payload, uint32_t qos, int64_t timestamp,
                   uint32_t expiry = 0) {
    std::string out(k_record, '\0');
    out.replace(0, topic.size(), topic);
    out.replace(257, payload.size(), payload);
    out.replace(2308, 4, number(static_cast<uint32_t>(payload.size())));
    out.replace(2312, 4, number(qos));
    out.replace(2320, 8, bytes_of(&timestamp, sizeof timestamp));
    out.replace(2328, 4, number(expiry));
    return out;
}

std::string with(std::string record, std::size_t offset, const std::string &bytes) {
    return record.replace(offset, bytes.size(), bytes);
}

class retain_dat : public zeb_test::persist_fixture {
  protected:
    // What a start makes of a file.
    store after_start_with(const std::string &content) {
        put_file(retain_file(), content);
        restart();
        return retained();
    }
    std::string content() { return file_content(retain_file()); }
    int64_t now_ = 1700000000;
};

TEST_F(retain_dat, holds_the_count_and_the_records_as_they_lie_in_memory) {
    const uint8_t bytes[] = {0, 255, 'x'};
    ASSERT_EQ(zeb::retain_msg_set_with_expiry("a/b", bytes, 3, 2, 60), 0);
    ASSERT_EQ(retain(std::string(256, 't'), std::string(2048, 'p'), 0), 0);
    EXPECT_EQ(content(), number(2) + record("a/b", std::string("\0\xff", 2) + "x", 2, now_, 60) +
                             record(std::string(256, 't'), std::string(2048, 'p'), 0, now_));
    EXPECT_EQ(writes(), 3u);
    EXPECT_TRUE(log_.has("DEBUG", "[persist] retain saved: 2 entries"));
}

TEST_F(retain_dat, padding_is_zero_whatever_lies_in_memory) {
    memset(static_cast<void *>(zeb::g_sub_mgr.retains), 0xee, sizeof(retain_msg));
    retain_msg &msg = zeb::g_sub_mgr.retains[0];
    const std::string sound = record("t", std::string(2048, 'p'), 1, 5);
    memcpy(msg.topic, sound.data(), sizeof msg.topic);
    memcpy(msg.payload, sound.data() + 257, sizeof msg.payload);
    msg.payload_len = 2048;
    msg.qos = 1;
    msg.timestamp = 5;
    msg.expiry_interval = 0;
    zeb::g_sub_mgr.retain_count.store(1);
    ASSERT_EQ(zeb::persist_retain_save(), 0);
    EXPECT_EQ(content(), number(1) + sound);
}

TEST_F(retain_dat, follows_updates_deletions_and_additions) {
    for (int i = 0; i < 6; ++i) ASSERT_EQ(retain("t" + std::to_string(i), "old", 1), 0);
    clock_.advance_ms(1000);
    ASSERT_EQ(retain("t2", "longer than before", 0), 0);
    ASSERT_EQ(retain("t4", "x", 2), 0);
    ASSERT_EQ(zeb::retain_msg_delete("t1"), 0);
    ASSERT_EQ(retain("t5", ""), 0);
    ASSERT_EQ(retain("new", "n", 1), 0);
    EXPECT_EQ(content(), number(5) + record("t0", "old", 1, now_) +
                             record("t2", "longer than before", 0, now_ + 1) + record("t3", "old", 1, now_) +
                             record("t4", "x", 2, now_ + 1) + record("new", "n", 1, now_ + 1));
}

TEST_F(retain_dat, of_an_empty_store_is_a_zero) {
    ASSERT_EQ(zeb::persist_retain_save(), 0);
    EXPECT_EQ(content(), number(0));
    ASSERT_EQ(retain("t", "p"), 0);
    ASSERT_EQ(retain("t", ""), 0);
    EXPECT_EQ(content(), number(0));
    EXPECT_EQ(after_start_with(number(0)), store{});
}

TEST_F(retain_dat, is_loaded_at_the_start) {
    EXPECT_EQ(after_start_with(number(2) + record("a", "1", 1, 7, 9) + record("b", "22", 2, 8)),
              (store{{"a", "1"}, {"b", "22"}}));
    retain_msg msg;
    ASSERT_EQ(zeb::retain_msg_get("a", &msg), 0);
    EXPECT_EQ(msg.qos, 1u);
    EXPECT_EQ(msg.timestamp, 7);
    EXPECT_EQ(msg.expiry_interval, 9u);
    EXPECT_EQ(reads(), 1u);
    EXPECT_TRUE(log_.has("INFO", "[persist] retain loaded: 2 entries"));
}

TEST_F(retain_dat, missing_is_reported_and_the_store_stays_empty) {
    restart();
    EXPECT_EQ(retained(), store{});
    EXPECT_EQ(zeb::persist_retain_load(), -4);
    EXPECT_EQ(reads(), 0u);
    EXPECT_TRUE(log_.has("WARN", "[persist] no retain file"));
}

TEST_F(retain_dat, whose_count_is_1001_is_ignored_as_a_whole) {
    std::string text = number(1001);
    for (int i = 0; i < 1001; ++i) text += record("t" + std::to_string(i), "p", 0, 1);
    EXPECT_EQ(after_start_with(text), store{});
    text.replace(0, 4, number(1000));
    EXPECT_EQ(after_start_with(text).size(), 1000u);
    EXPECT_TRUE(log_.has("INFO", "[persist] retain loaded: 1000 entries"));
}

TEST_F(retain_dat, that_is_not_accepted_keeps_the_store_as_it_is) {
    ASSERT_EQ(retain("kept", "p"), 0);
    for (const std::string &text : {std::string(), number(1).substr(0, 3), number(0xffffffffu), number(1001),
                                    number(2) + record("a", "1", 1, 7)}) {
        put_file(retain_file(), text);
        EXPECT_EQ(zeb::persist_retain_load(), 0);
        EXPECT_EQ(retained(), (store{{"kept", "p"}}));
    }
    EXPECT_EQ(reads(), 5u);
}

TEST_F(retain_dat, cut_anywhere_loads_whole_or_not_at_all) {
    const std::string whole = number(2) + record("a", "1", 1, 7) + record("b", "2", 2, 8);
    for (const std::size_t boundary : {std::size_t{0}, std::size_t{4}, 4 + k_record, 4 + 2 * k_record})
        for (const int off : {-1, 0, 1}) {
            const std::size_t size = std::min(whole.size(), boundary + static_cast<std::size_t>(off));
            if (boundary == 0 && off < 0) continue;
            EXPECT_EQ(after_start_with(whole.substr(0, size)),
                      size == whole.size() ? (store{{"a", "1"}, {"b", "2"}}) : store{})
                << size;
        }
}

TEST_F(retain_dat, bytes_behind_the_records_do_not_matter_and_go_with_the_next_change) {
    EXPECT_EQ(after_start_with(number(1) + record("a", "1", 1, 7) + "behind"), (store{{"a", "1"}}));
    ASSERT_EQ(retain("a", "2", 1), 0);
    EXPECT_EQ(content(), number(1) + record("a", "2", 1, now_));
}

TEST_F(retain_dat, damaged_records_are_dropped_and_the_others_kept) {
    const std::string sound = record("sound", "p", 1, 7);
    const std::string damaged[] = {
        with(record("x", "p", 1, 7), 0, std::string(257, 'x')),  // no end
        with(record("x", "p", 1, 7), 0, std::string(1, '\0')),   // empty topic
        with(record("x", "p", 1, 7), 2308, number(2049)),
        with(record("x", "p", 1, 7), 2308, number(0xffffffffu)),
        with(record("x", "p", 1, 7), 2308, number(0)),
        record("x", "p", 3, 7),
        record("x", "p", 0xffffffffu, 7),
        record("sound", "second", 1, 7),  // a topic occurs once
    };
    for (const std::string &one : damaged)
        EXPECT_EQ(after_start_with(number(3) + sound + one + record("y", "q", 2, 7)),
                  (store{{"sound", "p"}, {"y", "q"}}));
    EXPECT_TRUE(log_.has("WARN", "[persist] damaged retained records dropped: 1"));
    EXPECT_TRUE(log_.has("INFO", "[persist] retain loaded: 2 entries"));
}

TEST_F(retain_dat, the_longest_fields_are_sound) {
    const std::string topic(256, 't');
    EXPECT_EQ(after_start_with(number(1) + record(topic, std::string(2048, 'p'), 2, -1, 0xffffffffu)),
              (store{{topic, std::string(2048, 'p')}}));
}

TEST_F(retain_dat, with_dropped_records_is_put_right_by_the_next_save) {
    (void)after_start_with(number(3) + record("a", "1", 1, 7) + record("b", "2", 9, 7) +
                           record("c", "3", 1, 7));
    ASSERT_EQ(zeb::persist_retain_save(), 0);
    EXPECT_EQ(content(), number(2) + record("a", "1", 1, 7) + record("c", "3", 1, 7));
}

TEST_F(retain_dat, replaced_behind_our_back_is_written_whole_again) {
    ASSERT_EQ(retain("a", "1"), 0);
    ASSERT_EQ(retain("b", "2"), 0);
    const std::string expected = content();
    for (const std::string &text : {std::string(), std::string("junk"), number(1) + record("z", "z", 0, 1),
                                    std::string(4 * k_record, 'x')}) {
        fs::remove(retain_file());
        put_file(retain_file(), text);
        ASSERT_EQ(zeb::persist_retain_save(), 0);
        EXPECT_EQ(content(), expected);
    }
    fs::remove(retain_file());
    ASSERT_EQ(zeb::persist_retain_save(), 0);
    EXPECT_EQ(content(), expected);
}

TEST_F(retain_dat, that_cannot_be_created_is_reported) {
    fs::create_directory(retain_file());
    EXPECT_EQ(zeb::persist_retain_save(), -2);
    EXPECT_EQ(zeb::persist_retain_load(), -4);
    EXPECT_EQ(writes(), 0u);
    EXPECT_TRUE(log_.has("ERROR", "[persist] retain save failed"));
}

TEST_F(retain_dat, of_random_bytes_never_yields_an_unsound_message) {
    zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL);
    std::minstd_rand random(2);
    const std::string sound =
        number(3) + record("a", "1", 1, 7) + record("b", "2", 2, 8) + record("c", "3", 0, 9);
    for (int round = 0; round < 500; ++round) {
        std::string text = sound;
        if (round % 2 == 0) {
            for (char &c : text) c = static_cast<char>(random());
            text.replace(0, 4, number(3));
        } else {
            for (int i = 0; i < 20; ++i) text[random() % text.size()] = static_cast<char>(random());
        }
        (void)after_start_with(text);
        for (int i = 0; i < zeb::g_sub_mgr.retain_count.load(); ++i) {
            const retain_msg &msg = zeb::g_sub_mgr.retains[i];
            const std::size_t len = strnlen(msg.topic, sizeof msg.topic);
            ASSERT_TRUE(len >= 1 && len < sizeof msg.topic);
            ASSERT_TRUE(msg.payload_len >= 1 && msg.payload_len <= sizeof msg.payload);
            ASSERT_LE(msg.qos, 2u);
        }
        ASSERT_EQ(zeb::persist_retain_save(), 0);
    }
}

}  // namespace

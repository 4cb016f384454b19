#include "sub/retain_store.h"
#include "persist/persist.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "persist/persist.h"
#include "sub/text_hash.h"
#include "tests/sub/numbered.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"

namespace {

using zeb::g_sub_mgr;
using zeb::retain_msg;
using zeb::retain_msg_get;
using zeb_test::log_capture;
using zeb_test::numbered;

class retain_store : public testing::Test {
  protected:
    void SetUp() override {
        quiet_ = std::make_unique<log_capture>(zeb::AGENT_LOG_FATAL);
        // The saves go into the test's own directory, which exists.
        snprintf(zeb::g_persist_root_path, sizeof zeb::g_persist_root_path, ".");
        ASSERT_EQ(zeb::sub_init(), 0);
    }
    void TearDown() override { zeb::sub_deinit(); }

    log_capture &listen(uint32_t level) {
        quiet_.reset();
        quiet_ = std::make_unique<log_capture>(level);
        return *quiet_;
    }
    static int set(const char *topic, const std::string &payload, uint32_t qos = 0) {
        return zeb::retain_msg_set(topic, bytes(payload), static_cast<uint32_t>(payload.size()), qos);
    }
    static int set_for(const char *topic, const std::string &payload, uint32_t expiry) {
        return zeb::retain_msg_set_with_expiry(topic, bytes(payload), static_cast<uint32_t>(payload.size()),
                                               0, expiry);
    }
    // The payload kept for a topic, or "(none)".
    static std::string kept(const char *topic) {
        retain_msg msg;
        if (retain_msg_get(topic, &msg) != 0) return "(none)";
        return std::string(reinterpret_cast<const char *>(msg.payload), msg.payload_len);
    }
    static std::string topics() {
        char buf[4096];
        (void)zeb::retain_fill_topic_list(buf, sizeof buf);
        return buf;
    }

    zeb_test::fake_clock clock_;

  private:
    static const uint8_t *bytes(const std::string &text) {
        return reinterpret_cast<const uint8_t *>(text.data());
    }
    std::unique_ptr<log_capture> quiet_;
};

TEST_F(retain_store, a_new_message_is_kept_whole) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(set("a/b", std::string("x\0y", 3), 2), 0);
    retain_msg msg;
    ASSERT_EQ(retain_msg_get("a/b", &msg), 0);
    EXPECT_STREQ(msg.topic, "a/b");
    EXPECT_EQ(msg.payload_len, 3u);
    EXPECT_EQ(std::memcmp(msg.payload, "x\0y", 3), 0);
    EXPECT_EQ(msg.qos, 2u);
    EXPECT_EQ(msg.timestamp, 1700000000);
    EXPECT_EQ(msg.expiry_interval, 0u);
    EXPECT_TRUE(log.has("INFO", "MQTT标准：新增Topic=a/b的保留消息"));
}

TEST_F(retain_store, an_update_keeps_place_and_expiry) {
    ASSERT_EQ(set_for("a", "first and longer", 60), 0);
    ASSERT_EQ(set("b", "other"), 0);
    clock_.advance_ms(5000);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(set("a", "2nd", 1), 0);
    const retain_msg &msg = g_sub_mgr.retains[0];
    EXPECT_STREQ(msg.topic, "a");
    EXPECT_EQ(msg.payload_len, 3u);
    EXPECT_EQ(msg.qos, 1u);
    EXPECT_EQ(msg.timestamp, 1700000005);
    EXPECT_EQ(msg.expiry_interval, 60u);
    EXPECT_EQ(std::memcmp(msg.payload, "2nd\0\0\0\0", 7), 0) << "nothing of the old payload is left";
    EXPECT_EQ(g_sub_mgr.retain_count.load(), 2);
    EXPECT_TRUE(log.has("INFO", "MQTT标准：更新Topic=a的保留消息"));
}

TEST_F(retain_store, an_empty_payload_deletes) {
    ASSERT_EQ(set("a", "1"), 0);
    ASSERT_EQ(set("b", "2"), 0);
    ASSERT_EQ(set("c", "3"), 0);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(set("b", ""), 0);
    EXPECT_EQ(topics(), "a\nc\n");
    EXPECT_EQ(kept("b"), "(none)");
    EXPECT_EQ(kept("c"), "3");
    EXPECT_TRUE(log.has("INFO", "MQTT标准：删除Topic=b的保留消息（空Payload）"));
}

TEST_F(retain_store, an_empty_payload_for_an_unknown_topic_stores_nothing) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(set("a", ""), 0);
    EXPECT_EQ(zeb::retain_msg_set_with_expiry("a", nullptr, 0, 0, 10), 0);
    EXPECT_EQ(g_sub_mgr.retain_count.load(), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(retain_store, the_1001st_topic_is_refused_but_updates_work) {
    for (int i = 0; i < zeb::RETAIN_MAX; ++i) ASSERT_EQ(set(numbered("t/", i).c_str(), "v"), 0);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(set("t/1000", "v"), -4);
    EXPECT_EQ(set_for("t/1000", "v", 5), -4);
    EXPECT_EQ(set("t/999", "new"), 0);
    EXPECT_EQ(set("t/1000", ""), 0);
    EXPECT_EQ(g_sub_mgr.retain_count.load(), 1000);
    EXPECT_EQ(kept("t/999"), "new");
    EXPECT_EQ(kept("t/1000"), "(none)");
    EXPECT_TRUE(log.has("ERROR", "保留消息数量超限（max=1000）"));
    EXPECT_EQ(set("t/500", ""), 0);
    EXPECT_EQ(set("t/1000", "v"), 0);
    EXPECT_STREQ(g_sub_mgr.retains[999].topic, "t/1000");
    EXPECT_STREQ(g_sub_mgr.retains[500].topic, "t/501");
}

TEST_F(retain_store, a_message_lives_through_the_second_of_its_deadline) {
    ASSERT_EQ(set_for("short", "1", 10), 0);
    ASSERT_EQ(set_for("long", "2", 100), 0);
    clock_.advance_ms(10000);
    zeb::retain_clean_expired();
    EXPECT_EQ(topics(), "short\nlong\n");
    clock_.advance_ms(1000);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    zeb::retain_clean_expired();
    EXPECT_EQ(topics(), "long\n");
    EXPECT_EQ(kept("long"), "2");
    EXPECT_EQ(kept("short"), "(none)");
    EXPECT_TRUE(log.has("INFO", "保留消息已过期，自动清理: topic=short"));
}

TEST_F(retain_store, without_expiry_a_message_lives_seven_days) {
    ASSERT_EQ(set("a", "1"), 0);
    clock_.advance_ms(604800000ull);
    zeb::retain_clean_expired();
    EXPECT_EQ(kept("a"), "1");
    clock_.advance_ms(1000);
    zeb::retain_clean_expired();
    EXPECT_EQ(kept("a"), "(none)");
}

TEST_F(retain_store, several_expired_messages_go_in_one_pass) {
    for (int i = 0; i < 9; ++i) ASSERT_EQ(set_for(numbered("t", i).c_str(), "v", i % 3 == 0 ? 100 : 10), 0);
    clock_.advance_ms(11000);
    zeb::retain_clean_expired();
    EXPECT_EQ(topics(), "t0\nt3\nt6\n");
    EXPECT_EQ(kept("t6"), "v");
    EXPECT_EQ(kept("t1"), "(none)");
}

TEST_F(retain_store, setting_a_message_cleans_the_expired_ones_first) {
    ASSERT_EQ(set_for("a", "1", 10), 0);
    clock_.advance_ms(11000);
    EXPECT_EQ(set("a", "2"), 0);
    EXPECT_EQ(topics(), "a\n");
    EXPECT_EQ(g_sub_mgr.retains[0].expiry_interval, 0u) << "the old entry is gone, expiry and all";
}

TEST_F(retain_store, an_update_with_expiry_replaces_it) {
    ASSERT_EQ(set_for("a", "1", 10), 0);
    ASSERT_EQ(set_for("a", "1", 20), 0);
    EXPECT_EQ(g_sub_mgr.retains[0].expiry_interval, 20u);
    ASSERT_EQ(set_for("a", "1", 0), 0);
    EXPECT_EQ(g_sub_mgr.retains[0].expiry_interval, 20u);
}

TEST_F(retain_store, a_time_stamp_at_the_end_of_time_does_not_expire) {
    ASSERT_EQ(set("a", "1"), 0);
    g_sub_mgr.retains[0].timestamp = INT64_MAX;
    zeb::retain_clean_expired();
    EXPECT_EQ(kept("a"), "1");
}

TEST_F(retain_store, bad_topics_are_refused) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(set(nullptr, "1"), -1);
    EXPECT_EQ(set("", "1"), -1);
    EXPECT_EQ(set_for("", "1", 5), -1);
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] retain_msg_set：无效Topic（空指针/空字符串）"));
}

TEST_F(retain_store, a_payload_beyond_the_field_is_refused) {
    ASSERT_EQ(set("a", std::string(2048, 'x')), 0);
    EXPECT_EQ(kept("a"), std::string(2048, 'x'));
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    const std::string large(2049, 'y');
    EXPECT_EQ(set("a", large), -1);
    EXPECT_EQ(set("b", large), -1);
    EXPECT_EQ(zeb::retain_msg_set("b", nullptr, 5, 0), -1);
    EXPECT_EQ(kept("a"), std::string(2048, 'x'));
    EXPECT_EQ(g_sub_mgr.retain_count.load(), 1);
    EXPECT_TRUE(log.has("ERROR", "[RETAIN] payload refused: topic=b, payload=(nil), len=5, max=2048"));
    EXPECT_NE(log.text().find("len=2049, max=2048"), std::string::npos);
}

TEST_F(retain_store, a_topic_is_cut_to_its_field) {
    const std::string topic(300, 't');
    ASSERT_EQ(set(topic.c_str(), "1"), 0);
    EXPECT_EQ(std::string(g_sub_mgr.retains[0].topic), topic.substr(0, 256));
    EXPECT_EQ(kept(topic.substr(0, 256).c_str()), "1");
    EXPECT_EQ(kept(topic.c_str()), "(none)");
}

TEST_F(retain_store, getting_tells_found_from_missing) {
    ASSERT_EQ(set("a", "12"), 0);
    log_capture &log = listen(zeb::AGENT_LOG_DEBUG);
    retain_msg msg;
    EXPECT_EQ(retain_msg_get("a", &msg), 0);
    EXPECT_EQ(retain_msg_get("+", &msg), -5) << "no wildcards here";
    EXPECT_EQ(retain_msg_get(nullptr, &msg), -1);
    EXPECT_EQ(retain_msg_get("a", nullptr), -1);
    EXPECT_TRUE(log.has("DEBUG", "[DEBUG] retain_msg_get：找到保留消息（topic=a, payload_len=2）"));
    EXPECT_TRUE(log.has("DEBUG", "[DEBUG] retain_msg_get：未找到保留消息（topic=+）"));
    char line[200];
    snprintf(line, sizeof line, "[DEBUG] retain_msg_get：入参无效（topic=(nil), msg=%p）",
             static_cast<void *>(&msg));
    EXPECT_TRUE(log.has("ERROR", line));
}

TEST_F(retain_store, deleting_closes_the_gap) {
    for (const char *topic : {"a", "b", "c"}) ASSERT_EQ(set(topic, topic), 0);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(zeb::retain_msg_delete("a"), 0);
    EXPECT_EQ(topics(), "b\nc\n");
    EXPECT_EQ(kept("c"), "c");
    EXPECT_EQ(zeb::retain_msg_delete("a"), -5);
    EXPECT_EQ(zeb::retain_msg_delete(nullptr), -1);
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] retain_msg_delete：入参无效（topic=(nil)）"));
}

TEST_F(retain_store, the_topic_list_skips_what_does_not_fit) {
    ASSERT_EQ(set("abc", "1"), 0);
    ASSERT_EQ(set("d", "1"), 0);
    char buf[16];
    std::memset(buf, 'z', sizeof buf);
    EXPECT_EQ(zeb::retain_fill_topic_list(buf, 4), 1);
    EXPECT_STREQ(buf, "d\n");
    EXPECT_EQ(buf[4], 'z');
    EXPECT_EQ(zeb::retain_fill_topic_list(buf, 2), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(zeb::retain_fill_topic_list(buf, 1), 0);
    EXPECT_EQ(zeb::retain_fill_topic_list(buf, 7), 2);
    EXPECT_STREQ(buf, "abc\nd\n");
    EXPECT_EQ(zeb::retain_fill_topic_list(nullptr, 4), -1);
    EXPECT_EQ(zeb::retain_fill_topic_list(buf, 0), -1);
}

TEST_F(retain_store, the_topic_list_ends_each_topic_with_a_line_feed) {
    ASSERT_EQ(set("a", "1"), 0);
    ASSERT_EQ(set("b/c", "1"), 0);
    char buf[64];
    EXPECT_EQ(zeb::retain_fill_topic_list(buf, sizeof buf), 2);
    EXPECT_STREQ(buf, "a\nb/c\n");
}

TEST_F(retain_store, the_store_can_be_copied_and_replaced) {
    ASSERT_EQ(set("a", "1"), 0);
    ASSERT_EQ(set("b", "2"), 0);
    std::vector<retain_msg> copy(zeb::RETAIN_MAX + 1);
    EXPECT_EQ(zeb::retain_store_copy(copy.data(), 1), 1);
    EXPECT_EQ(zeb::retain_store_copy(copy.data(), zeb::RETAIN_MAX), 2);
    EXPECT_EQ(std::memcmp(copy.data(), g_sub_mgr.retains, 2 * sizeof(retain_msg)), 0);
    std::swap(copy[0], copy[1]);
    EXPECT_EQ(zeb::retain_store_replace(copy.data(), 2), 2);
    EXPECT_EQ(topics(), "b\na\n");
    EXPECT_EQ(kept("a"), "1");
    EXPECT_EQ(zeb::retain_store_replace(copy.data(), -1), 0);
    EXPECT_EQ(kept("a"), "(none)");
    EXPECT_EQ(zeb::retain_store_replace(copy.data(), zeb::RETAIN_MAX + 1), zeb::RETAIN_MAX);
}

TEST_F(retain_store, what_is_read_back_is_cut_to_its_fields) {
    auto msg = std::make_unique<retain_msg>();
    std::memset(msg->topic, 't', sizeof msg->topic);
    msg->payload_len = 0xFFFFFFFF;
    ASSERT_EQ(zeb::retain_store_replace(msg.get(), 1), 1);
    EXPECT_EQ(kept(std::string(256, 't').c_str()).size(), 2048u);
}

TEST_F(retain_store, messages_stored_into_the_array_directly_are_found) {
    ASSERT_EQ(set("a", "1"), 0);
    g_sub_mgr.retains[1] = g_sub_mgr.retains[0];
    snprintf(g_sub_mgr.retains[1].topic, sizeof g_sub_mgr.retains[1].topic, "b");
    g_sub_mgr.retain_count.store(2);
    EXPECT_EQ(kept("b"), "1");
    EXPECT_EQ(set("b", ""), 0);
    EXPECT_EQ(topics(), "a\n");
}

TEST_F(retain_store, nothing_of_an_earlier_life_is_left) {
    ASSERT_EQ(set("a", "1"), 0);
    const retain_msg msg = g_sub_mgr.retains[0];
    zeb::sub_deinit();
    ASSERT_EQ(zeb::sub_init(), 0);
    EXPECT_EQ(topics(), "");
    g_sub_mgr.retains[0] = msg;
    g_sub_mgr.retains[0].topic[0] = 'b';
    g_sub_mgr.retain_count.store(1);
    EXPECT_EQ(kept("b"), "1");
    EXPECT_EQ(kept("a"), "(none)");
}

TEST_F(retain_store, topics_with_one_hash_are_told_apart) {
    ASSERT_EQ(zeb::text_hash(zeb_test::k_twins[0]), zeb::text_hash(zeb_test::k_twins[1]));
    ASSERT_EQ(set(zeb_test::k_twins[0], "1"), 0);
    EXPECT_EQ(kept(zeb_test::k_twins[1]), "(none)");
    ASSERT_EQ(set(zeb_test::k_twins[1], "2"), 0);
    EXPECT_EQ(kept(zeb_test::k_twins[0]), "1");
    EXPECT_EQ(kept(zeb_test::k_twins[1]), "2");
}

TEST_F(retain_store, without_memory_there_are_no_messages) {
    zeb::sub_deinit();
    EXPECT_EQ(set("a", "1"), -4);
    EXPECT_EQ(set("a", ""), 0);
    EXPECT_EQ(kept("a"), "(none)");
    EXPECT_EQ(zeb::retain_msg_delete("a"), -5);
    zeb::retain_clean_expired();
    EXPECT_EQ(topics(), "");
    retain_msg msg;
    EXPECT_EQ(zeb::retain_store_copy(&msg, 1), 0);
    EXPECT_EQ(zeb::retain_store_replace(&msg, 1), 0);
}

}  // namespace

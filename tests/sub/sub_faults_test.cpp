// What is left when memory runs out, and when the store is saved. This program replaces the allocation of
// large tables and the saving of retained messages.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "log/platform_memory.h"
#include "persist/persist.h"
#include "sub/retain_store.h"
#include "sub/sub_mgr.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"

namespace {

int g_tables_left = 1000;  // table allocations that still succeed
bool g_arrays_fail = false;
int g_saves = 0;
int g_saved_messages = 0;  // what the last save found in the store

}  // namespace

void *zeb::platform_zero_alloc(std::size_t size) {
    return g_tables_left-- > 0 ? std::calloc(1, size) : nullptr;
}

void zeb::platform_zero_free(void *block, std::size_t) {
    std::free(block);
}

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return g_arrays_fail ? nullptr : operator new[](size);
}

int zeb::persist_retain_save() {
    ++g_saves;
    static retain_msg copy[RETAIN_MAX];
    g_saved_messages = retain_store_copy(copy, RETAIN_MAX);
    return -2;
}

namespace {

using zeb::g_sub_mgr;
using zeb_test::log_capture;

TEST(sub_faults, init_without_the_subscription_array_fails) {
    log_capture log(zeb::AGENT_LOG_INFO);
    g_tables_left = 0;
    EXPECT_EQ(zeb::sub_init(), -2);
    EXPECT_EQ(g_sub_mgr.subs, nullptr);
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_init：分配订阅数组失败（需要内存=" +
                                     std::to_string(zeb::SUB_MAX * sizeof(zeb::mqtt_subscription)) +
                                     "字节）"));
    EXPECT_TRUE(log.has("ERROR", "分配订阅数组失败"));
}

TEST(sub_faults, init_without_the_retained_array_fails_and_keeps_nothing) {
    log_capture log(zeb::AGENT_LOG_INFO);
    g_tables_left = 1;
    EXPECT_EQ(zeb::sub_init(), -2);
    EXPECT_EQ(g_sub_mgr.subs, nullptr);
    EXPECT_EQ(g_sub_mgr.retains, nullptr);
    EXPECT_EQ(zeb::sub_add("c", "a", 0, 0), -4);
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_init：分配保留消息数组失败（需要内存=2336000字节）"));
    EXPECT_TRUE(log.has("ERROR", "分配保留消息数组失败"));
}

TEST(sub_faults, a_failing_second_init_leaves_an_empty_module) {
    log_capture quiet(zeb::AGENT_LOG_FATAL);
    g_tables_left = 1000;
    ASSERT_EQ(zeb::sub_init(), 0);
    ASSERT_EQ(zeb::sub_add("c", "a", 0, 0), 0);
    g_tables_left = 0;
    EXPECT_EQ(zeb::sub_init(), -2);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 0);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c"), 0);
    const uint8_t payload = 1;
    EXPECT_EQ(zeb::retain_msg_set("t", &payload, 1, 0), -4);
}

TEST(sub_faults, without_an_index_everything_is_still_found) {
    log_capture log(zeb::AGENT_LOG_WARN);
    g_tables_left = 2;
    ASSERT_EQ(zeb::sub_init(), 0);
    EXPECT_TRUE(
        log.has("WARN", "[SUB] no memory for the subscription index: the table is searched linearly"));
    EXPECT_EQ(zeb::sub_add("c1", "a/+", 2, 0), 0);
    EXPECT_EQ(zeb::sub_add("c2", "$share/g/a/b", 1, 0), 0);
    EXPECT_EQ(zeb::sub_add("c1", "x", 1, 0), 0);
    EXPECT_EQ(zeb::sub_add("c1", "a/+", 0, 0), 0);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 3);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c1"), 2);

    zeb::sub_route_list list;
    ASSERT_EQ(zeb::sub_match_routes("a/b", &list, 10), 2);
    EXPECT_STREQ(list.routes[0].client_id, "c1");
    EXPECT_EQ(list.routes[0].qos, 0);
    EXPECT_EQ(list.routes[0].cid_hash, 99u * 31 + 49);
    EXPECT_TRUE(list.routes[1].shared);
    EXPECT_STREQ(list.routes[1].filter, "$share/g/a/b");
    ASSERT_EQ(zeb::sub_match_routes("a/b", &list, 1), 1);

    EXPECT_EQ(zeb::sub_remove("c1", nullptr), 2);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 1);
    ASSERT_EQ(zeb::sub_match_routes("a/b", &list, 10), 1);
    EXPECT_STREQ(list.routes[0].client_id, "c2");
    zeb::sub_deinit();
}

TEST(sub_faults, routes_that_find_no_room_are_reported) {
    log_capture log(zeb::AGENT_LOG_FATAL);
    g_tables_left = 1000;
    ASSERT_EQ(zeb::sub_init(), 0);
    ASSERT_EQ(zeb::sub_add("c", "a", 0, 0), 0);
    ASSERT_EQ(zeb::sub_add("c", ("$share/g/" + std::string(300, 'b')).c_str(), 0, 0), 0);

    zeb::sub_route_list list;
    g_arrays_fail = true;
    zeb::agent_log_set_level(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(zeb::sub_match_routes("a", &list, 10), -1);
    zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL);
    EXPECT_EQ(list.count, 0);
    g_arrays_fail = false;
    EXPECT_EQ(zeb::sub_match_routes("a", &list, 10), 1);
    g_arrays_fail = true;
    EXPECT_EQ(zeb::sub_match_routes(std::string(300, 'b').c_str(), &list, 10), -1)
        << "no room for the filter";
    EXPECT_EQ(list.count, 0);
    EXPECT_EQ(zeb::sub_match_routes("a", &list, 10), 1) << "the room it has stays usable";
    g_arrays_fail = false;
    EXPECT_EQ(zeb::sub_match_routes(std::string(300, 'b').c_str(), &list, 10), 1);
    EXPECT_EQ(std::string(list.routes[0].filter), "$share/g/" + std::string(300, 'b'));
    zeb::sub_deinit();
    EXPECT_EQ(log.text(), "") << "a match that failed has no result to report";
}

int set(const char *topic, uint32_t payload_len, uint32_t expiry) {
    static const uint8_t payload[4] = {1, 2, 3, 4};
    return zeb::retain_msg_set_with_expiry(topic, payload, payload_len, 0, expiry);
}

// Saving fails here every time, which changes nothing in memory.
TEST(sub_faults, each_change_of_the_retained_store_is_saved) {
    log_capture quiet(zeb::AGENT_LOG_FATAL);
    zeb_test::fake_clock clock;
    g_tables_left = 1000;
    ASSERT_EQ(zeb::sub_init(), 0);

    struct step {
        const char *topic;
        uint32_t payload_len;
        uint32_t expiry;
        int saves;
        int messages;
    };
    constexpr step k_steps[] = {
        {"a", 1, 0, 1, 1},   // new
        {"a", 2, 0, 1, 1},   // update
        {"b", 1, 10, 2, 2},  // the expiry is a change of its own
        {"a", 0, 0, 1, 1},   // removed by an empty payload
        {"a", 0, 0, 0, 1},   // nothing to remove
        {"b", 0, 10, 2, 0},  // removed, and the expiry is saved although its message is gone
        {"b", 0, 10, 1, 0},  // nothing but the expiry
        {"b", 1, 0, 1, 1},
    };
    for (const step &s : k_steps) {
        g_saves = 0;
        EXPECT_EQ(set(s.topic, s.payload_len, s.expiry), 0);
        EXPECT_EQ(g_saves, s.saves) << s.topic << ' ' << s.payload_len;
        EXPECT_EQ(g_saved_messages, s.messages);
        EXPECT_EQ(g_sub_mgr.retain_count.load(), s.messages);
    }
    g_saves = 0;
    EXPECT_EQ(zeb::retain_msg_delete("none"), -5);
    EXPECT_EQ(g_saves, 0);
    EXPECT_EQ(zeb::retain_msg_delete("b"), 0);
    EXPECT_EQ(g_saves, 1);
    EXPECT_EQ(g_saved_messages, 0);
    zeb::sub_deinit();
}

TEST(sub_faults, each_expired_message_is_one_save) {
    log_capture quiet(zeb::AGENT_LOG_FATAL);
    zeb_test::fake_clock clock;
    g_tables_left = 1000;
    ASSERT_EQ(zeb::sub_init(), 0);
    for (const char *topic : {"a", "b", "c"}) ASSERT_EQ(set(topic, 1, 10), 0);
    ASSERT_EQ(set("stays", 1, 20), 0);
    g_saves = 0;
    zeb::retain_clean_expired();
    EXPECT_EQ(g_saves, 0);
    clock.advance_ms(11000);
    zeb::retain_clean_expired();
    EXPECT_EQ(g_saves, 3);
    EXPECT_EQ(g_saved_messages, 1);
    zeb::sub_deinit();
}

}  // namespace

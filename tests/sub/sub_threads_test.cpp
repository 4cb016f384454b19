#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "sub/retain_store.h"
#include "sub/sub_mgr.h"
#include "tests/sub/numbered.h"
#include "tests/support/log_capture.h"

namespace {

using zeb::g_sub_mgr;
using zeb_test::log_capture;
using zeb_test::numbered;

constexpr int k_rounds = 300;
constexpr int k_filters = 8;

void add_and_remove(const std::string &client) {
    for (int round = 0; round < k_rounds; ++round) {
        for (int i = 0; i < k_filters; ++i)
            EXPECT_EQ(zeb::sub_add(client.c_str(), numbered("t/", i).c_str(), 1, 0), 0);
        EXPECT_EQ(zeb::sub_get_client_sub_count(client.c_str()), k_filters);
        EXPECT_EQ(zeb::sub_remove(client.c_str(), round % 2 == 0 ? nullptr : "t/0"),
                  round % 2 == 0 ? k_filters : 1);
    }
}

TEST(sub_threads, matching_sees_whole_entries_while_others_change_the_table) {
    log_capture quiet(zeb::AGENT_LOG_FATAL);
    ASSERT_EQ(zeb::sub_init(), 0);
    ASSERT_EQ(zeb::sub_add("constant", "t/+", 2, 0), 0);

    std::atomic<bool> done{false};
    auto match = [&] {
        zeb::sub_route_list list;
        list.all_filters = true;
        do {
            const int n = zeb::sub_match_routes("t/3", &list, 100);
            ASSERT_GE(n, 1);
            ASSERT_LE(n, 5);
            EXPECT_STREQ(list.routes[0].client_id, "constant");
            for (int i = 1; i < n; ++i) {
                EXPECT_EQ(list.routes[i].client_id[0], 'w');
                EXPECT_STREQ(list.routes[i].filter, "t/3");
            }
            EXPECT_LE(g_sub_mgr.sub_count.load(std::memory_order_relaxed), 1 + 4 * k_filters);
        } while (!done.load(std::memory_order_relaxed));
    };
    std::thread matchers[2] = {std::thread(match), std::thread(match)};
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i) writers.emplace_back(add_and_remove, numbered("w", i));
    for (std::thread &t : writers) t.join();
    done.store(true, std::memory_order_relaxed);
    for (std::thread &t : matchers) t.join();

    // The last round of each writer is an odd one and leaves all filters but the first.
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 1 + 4 * (k_filters - 1));
    zeb::sub_deinit();
}

TEST(sub_threads, the_table_may_go_and_come_back_under_its_users) {
    log_capture quiet(zeb::AGENT_LOG_FATAL);
    ASSERT_EQ(zeb::sub_init(), 0);
    std::atomic<bool> done{false};
    std::thread user([&] {
        zeb::sub_route_list list;
        uint8_t payload[4] = {1, 2, 3, 4};
        do {
            const int rc = zeb::sub_add("c", "a", 0, 0);
            EXPECT_TRUE(rc == 0 || rc == -4);
            EXPECT_LE(zeb::sub_match_routes("a", &list, 10), 1);
            (void)zeb::retain_msg_set("a", payload, sizeof payload, 0);
            (void)zeb::sub_remove("c", nullptr);
        } while (!done.load(std::memory_order_relaxed));
    });
    for (int i = 0; i < 50; ++i) {
        zeb::sub_deinit();
        EXPECT_EQ(zeb::sub_init(), 0);
    }
    done.store(true, std::memory_order_relaxed);
    user.join();
    zeb::sub_deinit();
}

TEST(sub_threads, retained_messages_are_read_whole_while_others_set_them) {
    log_capture quiet(zeb::AGENT_LOG_FATAL);
    ASSERT_EQ(zeb::sub_init(), 0);
    std::atomic<bool> done{false};
    std::thread reader([&] {
        zeb::retain_msg msg;
        std::vector<zeb::retain_msg> copy(8);
        char topics[64];
        do {
            if (zeb::retain_msg_get("t/1", &msg) == 0) {
                ASSERT_GT(msg.payload_len, 0u);
                EXPECT_EQ(msg.payload[0], msg.payload[msg.payload_len - 1]);
            }
            const int n = zeb::retain_store_copy(copy.data(), 8);
            EXPECT_LE(n, 2);
            for (int i = 0; i < n; ++i) {
                const zeb::retain_msg &m = copy[static_cast<size_t>(i)];
                EXPECT_EQ(m.payload[0], m.payload[m.payload_len - 1]);
            }
            EXPECT_LE(zeb::retain_fill_topic_list(topics, sizeof topics), 2);
            zeb::retain_clean_expired();
        } while (!done.load(std::memory_order_relaxed));
    });
    auto writer = [](const char *topic, uint8_t fill) {
        const std::vector<uint8_t> payload(200, fill);
        for (uint32_t i = 1; i < k_rounds; ++i) {
            EXPECT_EQ(zeb::retain_msg_set_with_expiry(topic, payload.data(), 1 + i % 200, 0, i % 2), 0);
            if (i % 16 == 0) {
                const int rc = zeb::retain_msg_delete(topic);
                EXPECT_TRUE(rc == 0 || rc == -5) << "the one-second messages may expire on a slow machine";
            }
        }
    };
    std::thread one(writer, "t/1", uint8_t{1});
    std::thread two(writer, "t/2", uint8_t{2});
    one.join();
    two.join();
    done.store(true, std::memory_order_relaxed);
    reader.join();
    zeb::sub_deinit();
}

}  // namespace

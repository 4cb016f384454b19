#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <thread>
#include <vector>

#include "stats/mqtt_stats.h"
#include "tests/support/log_capture.h"

namespace {

using namespace zeb;

constexpr int k_threads = 8;
constexpr int k_rounds = 5000;

void run_on_all_threads(void (*work)()) {
    std::vector<std::thread> threads;
    for (int t = 0; t < k_threads; ++t) threads.emplace_back(work);
    for (std::thread &thread : threads) thread.join();
}

TEST(mqtt_stats_threads, no_count_of_eight_threads_is_lost) {
    mqtt_stats_init();
    run_on_all_threads([] {
        for (int i = 0; i < k_rounds; ++i) {
            mqtt_stats_inc_rx_pkt();
            mqtt_stats_inc_qos(1);
            mqtt_stats_inc_timeout();
        }
    });
    EXPECT_EQ(g_mqtt_stats.pkt_rx.load(), static_cast<uint64_t>(k_threads) * k_rounds);
    EXPECT_EQ(g_mqtt_stats.period_pkt_rx.load(), static_cast<uint64_t>(k_threads) * k_rounds);
    EXPECT_EQ(g_mqtt_stats.qos1.load(), static_cast<uint64_t>(k_threads) * k_rounds);
    EXPECT_EQ(g_mqtt_stats.timeout.load(), static_cast<uint32_t>(k_threads * k_rounds));
    EXPECT_EQ(g_mqtt_stats.period_timeout.load(), static_cast<uint32_t>(k_threads * k_rounds));
}

TEST(mqtt_stats_threads, reports_snapshots_and_resets_run_beside_counting) {
    mqtt_stats_init();
    {
        const zeb_test::log_capture log(AGENT_LOG_WARN);
        run_on_all_threads([] {
            std::array<char, 1024> buf{};
            for (int i = 0; i < k_rounds / 10; ++i) {
                mqtt_stats_inc_tx_pkt();
                mqtt_stats_inc_persist_write();
                if (i % 10 == 0) {
                    EXPECT_EQ(mqtt_stats_to_json(buf.data(), 1024), 0);
                }
                if (i % 50 == 0) mqtt_stats_print();
                if (i % 25 == 0) mqtt_stats_reset_period();
            }
            EXPECT_EQ(strncmp(buf.data(), "{\"online\":0,", 12), 0);
        });
    }
    EXPECT_EQ(g_mqtt_stats.pkt_tx.load(), static_cast<uint64_t>(k_threads) * (k_rounds / 10));
    EXPECT_LE(g_mqtt_stats.period_pkt_tx.load(), g_mqtt_stats.pkt_tx.load());
    EXPECT_EQ(g_mqtt_stats.persist_write.load(), static_cast<uint64_t>(k_threads) * (k_rounds / 10));
}

}  // namespace

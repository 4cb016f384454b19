#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "console_under_test.h"
#include "stats/mqtt_stats.h"

namespace {

// A clock on which every sleep lasts until the test ends it. Time itself stands at 75.999 s.
class held_sleep {
  public:
    held_sleep() {
        g_held = this;
        platform_set_clock(&table());
    }
    ~held_sleep() {
        platform_set_clock(nullptr);
        g_held = nullptr;
    }
    held_sleep(const held_sleep &) = delete;
    held_sleep &operator=(const held_sleep &) = delete;

    // Wait until the thread is in its n-th sleep and return how long that one should take.
    uint64_t wait_for_sleep(int n) {
        std::unique_lock<std::mutex> lock(lock_);
        changed_.wait(lock, [&] { return begun_ >= n; });
        return asked_us_;
    }
    void end_sleep() {
        const std::lock_guard<std::mutex> lock(lock_);
        ++ended_;
        changed_.notify_all();
    }
    int begun() {
        const std::lock_guard<std::mutex> lock(lock_);
        return begun_;
    }

  private:
    void sleep(uint64_t us) {
        std::unique_lock<std::mutex> lock(lock_);
        asked_us_ = us;
        const int mine = ++begun_;
        changed_.notify_all();
        changed_.wait(lock, [&] { return ended_ >= mine; });
    }

    static inline held_sleep *g_held = nullptr;
    static const platform_clock &table() {
        static const platform_clock clock{
            [] { return uint64_t{75999}; },
            [] { return uint64_t{1700000000000}; },
            [](uint64_t us) { g_held->sleep(us); },
        };
        return clock;
    }

    std::mutex lock_;
    std::condition_variable changed_;
    int begun_ = 0;
    int ended_ = 0;
    uint64_t asked_us_ = 0;
};

constexpr char k_block[] =
    "\n"
    "=====================================================\n"
    "📊 周期统计 | 在线:0 | 消息:7 | 订阅:5 | 运行:75秒\n"
    "=====================================================\n";

// An instance that says that it runs, without the threads of one that does.
class console_stats : public testing::Test {
  protected:
    void SetUp() override {
        (void)printed([this] { broker_ = zeb_sdk_mqtt_broker_create(); });
        ASSERT_NE(broker_, nullptr);
        broker_->running = 1;
        g_broker.store(broker_);
        g_mqtt_stats.qos0.store(1);
        g_mqtt_stats.qos1.store(2);
        g_mqtt_stats.qos2.store(4);
        g_mqtt_stats.subs.store(5);
    }
    void TearDown() override {
        (void)printed([this] { zeb_sdk_mqtt_broker_destroy(broker_); });
        g_broker.store(nullptr);
        g_run_flag.store(1);
        g_mqtt_stats.qos0.store(0);
        g_mqtt_stats.qos1.store(0);
        g_mqtt_stats.qos2.store(0);
        g_mqtt_stats.subs.store(0);
    }
    // What one period of a running statistics thread prints.
    std::string one_period() {
        return printed([this] {
            start_stats_thread();
            EXPECT_EQ(clock_.wait_for_sleep(1), 15000000u);
            clock_.end_sleep();
            clock_.wait_for_sleep(2);
        });
    }
    void finish() {
        g_run_flag.store(0);
        clock_.end_sleep();
        stop_stats_thread();
    }

    held_sleep clock_;
    mqtt_broker_instance *broker_ = nullptr;
};

}  // namespace

TEST_F(console_stats, nothing_is_printed_before_15_s_and_one_block_after_each) {
    EXPECT_EQ(printed([this] {
                  start_stats_thread();
                  EXPECT_EQ(clock_.wait_for_sleep(1), 15000000u);
              }),
              "");
    for (int period = 1; period <= 3; ++period) {
        EXPECT_EQ(printed([&] {
                      clock_.end_sleep();
                      EXPECT_EQ(clock_.wait_for_sleep(period + 1), 15000000u);
                  }),
                  k_block);
    }
    EXPECT_EQ(printed([this] { finish(); }), k_block);
    EXPECT_EQ(clock_.begun(), 4);
}

TEST_F(console_stats, nothing_is_printed_while_the_broker_is_not_running) {
    broker_->running = 0;
    EXPECT_EQ(one_period(), "");
    EXPECT_EQ(printed([this] { finish(); }), "");
}

TEST_F(console_stats, nothing_is_printed_without_an_instance) {
    g_broker.store(nullptr);
    EXPECT_EQ(one_period(), "");
    EXPECT_EQ(printed([this] { finish(); }), "");
}

TEST_F(console_stats, switching_it_off_ends_the_thread_after_the_period_that_is_under_way) {
    EXPECT_EQ(one_period(), k_block);
    g_stats_enable.store(0);
    EXPECT_EQ(printed([this] {
                  clock_.end_sleep();
                  pthread_join(g_stats_thread, nullptr);
              }),
              k_block);
    EXPECT_EQ(clock_.begun(), 2);
}

TEST_F(console_stats, a_thread_that_is_switched_off_before_it_begins_returns_at_once) {
    g_stats_enable.store(0);
    EXPECT_EQ(printed([] { EXPECT_EQ(stats_timer_thread(nullptr), nullptr); }), "");
    EXPECT_EQ(clock_.begun(), 0);
}

TEST_F(console_stats, a_thread_that_begins_while_the_program_ends_returns_at_once) {
    g_stats_enable.store(1);
    g_run_flag.store(0);
    EXPECT_EQ(printed([] { EXPECT_EQ(stats_timer_thread(nullptr), nullptr); }), "");
    EXPECT_EQ(clock_.begun(), 0);
    g_stats_enable.store(0);
}

TEST_F(console_stats, stopping_without_a_thread_waits_for_nobody) {
    stop_stats_thread();
    EXPECT_EQ(g_stats_enable.load(), 0);
    EXPECT_EQ(clock_.begun(), 0);
}

TEST_F(console_stats, the_thread_can_be_started_again) {
    for (int round = 1; round <= 3; ++round) {
        EXPECT_EQ(printed([&] {
                      start_stats_thread();
                      clock_.wait_for_sleep(round);
                      g_run_flag.store(0);
                      clock_.end_sleep();
                      stop_stats_thread();
                  }),
                  k_block);
        g_run_flag.store(1);
        EXPECT_EQ(g_stats_enable.load(), 0);
    }
}

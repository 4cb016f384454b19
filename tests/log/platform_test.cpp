#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <thread>

#include "log/platform_memory.h"
#include "log/platform_thread.h"
#include "tests/log/log_fixture.h"
#include "tests/support/fake_clock.h"

namespace {

using namespace zeb;
using zeb_test::fake_clock;

std::string local_time(uint32_t size) {
    char buf[80];
    memset(buf, '#', sizeof buf);
    platform_get_localtime_str(buf, size);
    for (size_t i = size; i < sizeof buf; ++i) EXPECT_EQ(buf[i], '#') << i;
    return std::string(buf, strnlen(buf, sizeof buf));
}

TEST(platform_time, local_time_is_written_with_milliseconds) {
    const fake_clock clock(0, zeb_test::k_stamp_ms);
    zeb_test::use_time_zone("UTC0");
    EXPECT_EQ(local_time(64), "2024-01-02 03:04:05.678");
    zeb_test::use_time_zone("XYZ-5:30");
    EXPECT_EQ(local_time(64), "2024-01-02 08:34:05.678");
    zeb_test::use_time_zone("UTC0");
}

TEST(platform_time, local_time_pads_with_zeros) {
    const fake_clock clock(0, 7);
    zeb_test::use_time_zone("UTC0");
    EXPECT_EQ(local_time(64), "1970-01-01 00:00:00.007");
}

TEST(platform_time, local_time_keeps_two_characters_less_than_the_buffer) {
    const fake_clock clock(0, zeb_test::k_stamp_ms);
    zeb_test::use_time_zone("UTC0");
    EXPECT_EQ(local_time(25), "2024-01-02 03:04:05.678");
    EXPECT_EQ(local_time(24), "2024-01-02 03:04:05.67");
    EXPECT_EQ(local_time(6), "2024");
    EXPECT_EQ(local_time(3), "2");
    EXPECT_EQ(local_time(2), "");
    EXPECT_EQ(local_time(1), "");
}

TEST(platform_time, local_time_without_a_buffer_is_harmless) {
    platform_get_localtime_str(nullptr, 64);
    char byte = '#';
    platform_get_localtime_str(&byte, 0);
    EXPECT_EQ(byte, '#');
}

TEST(platform_time, a_time_of_day_beyond_all_years_is_survived) {
    const fake_clock clock(0, UINT64_MAX);
    EXPECT_NE(local_time(64), "");
}

TEST(platform_time, the_tick_wraps_at_32_bits) {
    fake_clock clock(0, 0xFFFFFFFF);
    EXPECT_EQ(platform_get_tick_ms(), 0xFFFFFFFFu);
    const uint32_t before = platform_get_tick_ms();
    clock.advance_ms(6);
    EXPECT_EQ(platform_get_tick_ms(), 5u);
    EXPECT_EQ(platform_get_tick_ms() - before, 6u);
}

TEST(platform_time, seconds_are_the_time_of_day_cut_down) {
    const fake_clock clock(0, 1999);
    EXPECT_EQ(platform_wall_sec(), 1);
}

TEST(platform_time, a_swapped_clock_serves_every_call) {
    fake_clock clock(123, 456);
    EXPECT_EQ(platform_mono_ms(), 123u);
    EXPECT_EQ(platform_wall_ms(), 456u);
    platform_sleep_us(3600000000);
    EXPECT_EQ(clock.slept_us(), 3600000000u);
}

TEST(platform_time, a_clock_without_members_is_the_real_one) {
    static constexpr platform_clock k_empty{nullptr, nullptr, nullptr};
    const uint64_t before_ms = platform_mono_ms();
    const uint64_t before_wall_ms = platform_wall_ms();
    platform_set_clock(&k_empty);
    platform_sleep_us(2000);
    const uint64_t after_ms = platform_mono_ms();
    const int64_t wall_s = platform_wall_sec();
    platform_set_clock(nullptr);
    EXPECT_GT(after_ms, before_ms);
    EXPECT_GE(wall_s, static_cast<int64_t>(before_wall_ms / 1000) - 1);
    EXPECT_GT(wall_s, 1700000000);
}

TEST(platform_time, a_signal_does_not_cut_a_sleep_short) {
    constexpr uint64_t k_sleep_ms = 100;
    struct sigaction ignore {};
    struct sigaction previous {};
    ignore.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &ignore, &previous), 0);
    std::atomic<bool> awake{false};
    std::thread disturber([&awake, sleeper = pthread_self()] {
        while (!awake.load()) {
            pthread_kill(sleeper, SIGUSR1);
            platform_sleep_us(1000);
        }
    });
    const uint64_t before_ms = platform_mono_ms();
    platform_sleep_us(k_sleep_ms * 1000);
    const uint64_t after_ms = platform_mono_ms();
    awake.store(true);
    disturber.join();
    EXPECT_GE(after_ms - before_ms, k_sleep_ms - 1);  // both readings are cut to milliseconds
    EXPECT_EQ(sigaction(SIGUSR1, &previous, nullptr), 0);
}

struct seen_by_thread {
    sigset_t mask;
    int answer;
};

void *look_at_mask(void *arg) {
    auto *seen = static_cast<seen_by_thread *>(arg);
    pthread_sigmask(SIG_SETMASK, nullptr, &seen->mask);
    seen->answer = 42;
    return seen;
}

TEST(platform_thread, a_thread_blocks_the_programs_signals_and_its_creator_does_not) {
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    seen_by_thread seen{};
    pthread_t thread;
    ASSERT_EQ(platform_thread_start(&thread, "zeb_test", look_at_mask, &seen), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, &seen);
    EXPECT_EQ(seen.answer, 42);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGCHLD, SIGPIPE}) {
        EXPECT_EQ(sigismember(&seen.mask, signal), 1) << signal;
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
    }
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT})
        EXPECT_EQ(sigismember(&seen.mask, fault), 0) << fault;
}

void *wait_for_release(void *arg) {
    auto *release = static_cast<std::atomic<bool> *>(arg);
    while (!release->load()) platform_sleep_us(1000);
    return nullptr;
}

TEST(platform_thread, a_thread_carries_its_name) {
    std::atomic<bool> release{false};
    pthread_t thread;
    ASSERT_EQ(platform_thread_start(&thread, "zeb_fifteen_chr", wait_for_release, &release), 0);
    char name[16] = "";
    EXPECT_EQ(pthread_getname_np(thread, name, sizeof name), 0);
    EXPECT_STREQ(name, "zeb_fifteen_chr");
    release.store(true);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
}

TEST(platform_thread, a_name_that_is_too_long_does_not_keep_the_thread_from_running) {
    seen_by_thread seen{};
    pthread_t thread;
    ASSERT_EQ(platform_thread_start(&thread, "a_name_of_more_than_15", look_at_mask, &seen), 0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_EQ(seen.answer, 42);
}

TEST(platform_clock, the_coarse_clock_lags_the_exact_one_a_little_at_most) {
    for (int i = 0; i < 1000; ++i) {
        const uint64_t before = platform_mono_ms();
        const uint64_t coarse = platform_mono_coarse_ms();
        ASSERT_LE(coarse, platform_mono_ms());
        ASSERT_GE(coarse + 100, before) << "a tick is 10 ms at most";
    }
}

std::atomic<uint64_t> s_slept_us{0};
constexpr platform_clock k_counting_clock{[] { return uint64_t{4711}; }, nullptr,
                                          [](uint64_t us) { s_slept_us.fetch_add(us); }};

TEST(platform_clock, a_replaced_clock_is_the_coarse_one_too) {
    platform_set_clock(&k_counting_clock);
    EXPECT_EQ(platform_mono_coarse_ms(), 4711u);
    platform_set_clock(nullptr);
}

TEST(platform_beat, a_replaced_clock_sleeps_the_whole_period) {
    platform_set_clock(&k_counting_clock);
    s_slept_us = 0;
    platform_beat beat(10000, 9000);
    for (int i = 0; i < 3; ++i) beat.wait();
    platform_set_clock(nullptr);
    EXPECT_EQ(s_slept_us.load(), 30000u);
}

// Lower bounds only: how late a sleeper wakes is the machine's affair.
TEST(platform_beat, beats_are_never_shorter_than_their_period) {
    platform_beat beat(5000, 1000);
    const uint64_t before = platform_mono_ms();
    for (int i = 0; i < 10; ++i) beat.wait();
    EXPECT_GE(platform_mono_ms() - before, 49u) << "a late wake-up is made good, never more";
}

TEST(platform_beat, work_that_takes_longer_than_a_period_leaves_the_least_rest) {
    platform_beat beat(1000, 20000);
    const uint64_t before = platform_mono_ms();
    for (int i = 0; i < 3; ++i) beat.wait();
    EXPECT_GE(platform_mono_ms() - before, 59u);
}

constexpr uint64_t k_hour_us = 3600000000;

TEST(platform_alarm, a_ring_ends_the_sleep) {
    platform_alarm alarm;
    std::atomic<bool> slept{false};
    std::thread sleeper([&] {
        alarm.sleep_us(k_hour_us);
        slept.store(true);
    });
    alarm.ring();
    sleeper.join();
    EXPECT_TRUE(slept.load());
}

TEST(platform_alarm, a_ring_before_the_sleep_is_heard_once) {
    platform_alarm alarm;
    alarm.ring();
    alarm.ring();
    alarm.sleep_us(k_hour_us);
    const uint64_t before = platform_mono_ms();
    alarm.sleep_us(20000);
    EXPECT_GE(platform_mono_ms() - before, 19u) << "what was heard does not end the next sleep";
}

TEST(platform_alarm, what_the_waker_did_before_is_seen) {
    platform_alarm alarm;
    int work = 0;  // plain on purpose: the alarm orders it
    int seen = 0;
    std::thread sleeper([&] {
        alarm.sleep_us(k_hour_us);
        seen = work;
    });
    work = 42;
    alarm.ring();
    sleeper.join();
    EXPECT_EQ(seen, 42);
}

TEST(platform_alarm, a_replaced_clock_sleeps_in_its_place) {
    static std::atomic<uint64_t> s_slept{0};
    static constexpr platform_clock k_clock{nullptr, nullptr, [](uint64_t us) { s_slept.store(us); }};
    platform_set_clock(&k_clock);
    platform_alarm alarm;
    alarm.sleep_us(k_hour_us);
    platform_set_clock(nullptr);
    EXPECT_EQ(s_slept.load(), k_hour_us);
}

TEST(platform_memory, a_block_is_zero_also_when_memory_is_recycled) {
    constexpr size_t k_size = 8u << 20;
    for (int round = 0; round < 3; ++round) {
        auto *block = static_cast<unsigned char *>(platform_zero_alloc(k_size));
        ASSERT_NE(block, nullptr);
        size_t nonzero = 0;
        for (size_t i = 0; i < k_size; ++i) nonzero += block[i] != 0;
        EXPECT_EQ(nonzero, 0u) << round;
        memset(block, 0xA5, k_size);
        platform_zero_free(block, k_size);
    }
}

TEST(platform_memory, a_block_suits_every_type) {
    void *block = platform_zero_alloc(1);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(max_align_t), 0u);
    platform_zero_free(block, 1);
}

TEST(platform_memory, freeing_null_is_harmless) {
    platform_zero_free(nullptr, 4096);
}

}  // namespace

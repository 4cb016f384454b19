#pragma once

#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "log/platform_time.h"
#include "qos/qos_reliable.h"

namespace zeb_test {

// Real time, but nobody sleeps for longer than a moment: the threads of the library beat fifty times as fast,
// and with them a test of some thousand round trips. Either clock can be stepped without the other.
class quick_clock {
  public:
    explicit quick_clock(uint64_t longest_sleep_us = 200) {
        wall_step() = 0;
        scans() = 0;
        passes() = 0;
        longest() = longest_sleep_us;
        zeb::platform_set_clock(&table());
    }
    ~quick_clock() { zeb::platform_set_clock(nullptr); }
    quick_clock(const quick_clock &) = delete;
    quick_clock &operator=(const quick_clock &) = delete;

    void step_wall_ms(int64_t ms) { wall_step() += ms; }
    void advance_mono_ms(uint64_t ms) { mono_step() += ms; }
    // How often the thread has slept that looks for messages to send again.
    uint64_t qos_scans() const { return scans(); }
    // How often the housekeeping thread has gone round.
    uint64_t housekeeping_passes() const { return passes(); }

  private:
    static std::atomic<int64_t> &wall_step() {
        static std::atomic<int64_t> v;
        return v;
    }
    // Never back to where an earlier test has been: some schedules outlive a broker.
    static std::atomic<uint64_t> &mono_step() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static std::atomic<uint64_t> &scans() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static std::atomic<uint64_t> &passes() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static std::atomic<uint64_t> &longest() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static uint64_t mono_ms() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000 +
               mono_step();
    }
    static uint64_t wall_ms() {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        const int64_t real = static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
        return static_cast<uint64_t>(real + wall_step());
    }
    static void sleep_us(uint64_t us) {
        if (us == zeb::QOS_SCAN_PERIOD_US) ++scans();
        char name[16] = "";
        (void)pthread_getname_np(pthread_self(), name, sizeof name);  // two threads sleep for equally long
        if (strcmp(name, "zeb-house") == 0) ++passes();
        const uint64_t cut = std::min(us, longest().load());
        const timespec span{static_cast<time_t>(cut / 1000000), static_cast<long>(cut % 1000000 * 1000)};
        nanosleep(&span, nullptr);
    }
    static const zeb::platform_clock &table() {
        static const zeb::platform_clock clock{mono_ms, wall_ms, sleep_us};
        return clock;
    }
};

}  // namespace zeb_test

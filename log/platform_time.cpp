#include "log/platform_time.h"

#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

namespace zeb {

namespace {

std::atomic<const platform_clock *> g_clock{nullptr};

uint64_t read_ms(clockid_t id) {
    timespec now{};
    clock_gettime(id, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
}

uint64_t real_wall_ms() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_usec) / 1000u;
}

uint64_t real_mono_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

timespec instant(uint64_t mono_us) {
    return {static_cast<time_t>(mono_us / 1000000u), static_cast<long>(mono_us % 1000000u) * 1000L};
}

// Up to an instant, not for a while: what handling a signal takes must not make the sleep longer.
void real_sleep_until(uint64_t mono_us) {
    const timespec until = instant(mono_us);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

}  // namespace

void platform_set_clock(const platform_clock *clock) {
    g_clock.store(clock, std::memory_order_release);
}

uint64_t platform_mono_ms() {
    const platform_clock *clock = g_clock.load(std::memory_order_acquire);
    return clock != nullptr && clock->mono_ms != nullptr ? clock->mono_ms() : read_ms(CLOCK_MONOTONIC);
}

uint64_t platform_mono_coarse_ms() {
    const platform_clock *clock = g_clock.load(std::memory_order_acquire);
    return clock != nullptr && clock->mono_ms != nullptr ? clock->mono_ms() : read_ms(CLOCK_MONOTONIC_COARSE);
}

uint64_t platform_wall_ms() {
    const platform_clock *clock = g_clock.load(std::memory_order_acquire);
    return clock != nullptr && clock->wall_ms != nullptr ? clock->wall_ms() : real_wall_ms();
}

int64_t platform_wall_sec() {
    return static_cast<int64_t>(platform_wall_ms() / 1000u);
}

void platform_sleep_us(uint64_t us) {
    const platform_clock *clock = g_clock.load(std::memory_order_acquire);
    if (clock != nullptr && clock->sleep_us != nullptr)
        clock->sleep_us(us);
    else
        real_sleep_until(real_mono_us() + us);
}

void platform_beat::wait() {
    const platform_clock *clock = g_clock.load(std::memory_order_acquire);
    if (clock != nullptr && clock->sleep_us != nullptr) {
        clock->sleep_us(period_us_);
        return;
    }
    const uint64_t now_us = real_mono_us();
    if (due_us_ == 0) due_us_ = now_us;
    due_us_ = std::max(due_us_ + period_us_, now_us + least_rest_us_);
    real_sleep_until(due_us_);
}

void platform_alarm::ring() {
    if (rung_.exchange(true, std::memory_order_acq_rel)) return;
    (void)pthread_mutex_lock(&lock_);  // not between the sleeper's look at rung_ and its wait
    (void)pthread_mutex_unlock(&lock_);
    (void)pthread_cond_signal(&bell_);
}

void platform_alarm::sleep_us(uint64_t us) {
    const platform_clock *clock = g_clock.load(std::memory_order_acquire);
    if (clock != nullptr && clock->sleep_us != nullptr) {
        clock->sleep_us(us);
    } else {
        const timespec until = instant(real_mono_us() + us);
        (void)pthread_mutex_lock(&lock_);
        while (!rung_.load(std::memory_order_relaxed) &&
               pthread_cond_clockwait(&bell_, &lock_, CLOCK_MONOTONIC, &until) == 0) {
        }
        (void)pthread_mutex_unlock(&lock_);
    }
    rung_.exchange(false, std::memory_order_acq_rel);
}

uint32_t platform_get_tick_ms() {
    return static_cast<uint32_t>(platform_wall_ms());
}

void platform_get_localtime_str(char *buf, uint32_t size) {
    if (buf == nullptr || size == 0) return;
    if (size < 2) {
        buf[0] = '\0';
        return;
    }
    const uint64_t now_ms = platform_wall_ms();
    const time_t seconds = static_cast<time_t>(now_ms / 1000u);
    tm local{};
    localtime_r(&seconds, &local);
    snprintf(buf, size - 1, "%04d-%02d-%02d %02d:%02d:%02d.%03ld", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(now_ms % 1000u));
}

}  // namespace zeb

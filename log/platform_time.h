#pragma once

#include <cstdint>

namespace zeb {

struct platform_clock {
    uint64_t (*mono_ms)();          // CLOCK_MONOTONIC, milliseconds
    uint64_t (*wall_ms)();          // time of day, milliseconds since the epoch
    void (*sleep_us)(uint64_t us);  // suspends the calling thread
};

void platform_set_clock(const platform_clock *clock);

uint64_t platform_mono_ms();
uint64_t platform_wall_ms();
int64_t platform_wall_sec();  // platform_wall_ms() / 1000
void platform_sleep_us(uint64_t us);

uint32_t platform_get_tick_ms();  // platform_wall_ms() cut to 32 bits
void platform_get_localtime_str(char *buf,
                                uint32_t size);  // "2024-01-02 03:04:05.678", at most size - 2 characters

}  // namespace zeb

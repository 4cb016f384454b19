#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

// The only door to clocks and sleeping, so that a test can step time. Any thread may call all of it.

namespace zeb {

struct platform_clock {
    uint64_t (*mono_ms)();          // CLOCK_MONOTONIC, milliseconds
    uint64_t (*wall_ms)();          // time of day, milliseconds since the epoch
    void (*sleep_us)(uint64_t us);  // suspends the calling thread
};

// Swaps the door; null, or a null member, stands for the real one. *clock must outlive its use; threads may
// be running.
void platform_set_clock(const platform_clock *clock);

uint64_t platform_mono_ms();
// May lag some milliseconds behind, and costs a fraction: for stamps that each packet leaves.
uint64_t platform_mono_coarse_ms();
uint64_t platform_wall_ms();
int64_t platform_wall_sec();  // platform_wall_ms() / 1000
void platform_sleep_us(uint64_t us);

// Paces a loop: wait() sleeps until a period after the last one was due to end, so that neither a short
// round's work nor a late wake-up stretches the beat; but never less than the least rest, or a loop whose
// work takes longer than its period would take a core. A replaced clock sleeps the whole period. One thread.
class platform_beat {
  public:
    platform_beat(uint64_t period_us, uint64_t least_rest_us)
        : period_us_(period_us), least_rest_us_(least_rest_us) {}
    void wait();

  private:
    uint64_t period_us_;
    uint64_t least_rest_us_;
    uint64_t due_us_ = 0;  // 0: not begun
};

// A sleep that another thread can end. A replaced clock's sleep is not cut short.
class platform_alarm {
  public:
    // Wakes the sleeper, or keeps the next sleep from beginning. Any thread; cheap while an earlier ring
    // waits to be heard.
    void ring();
    // One thread. Everything that its waker did before it rang is seen afterwards.
    void sleep_us(uint64_t us);

  private:
    // Not the standard library's: its destructor would wait for a sleeper, also in a forked child that has
    // none and only means to exit.
    std::atomic<bool> rung_{false};
    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t bell_ = PTHREAD_COND_INITIALIZER;
};

uint32_t platform_get_tick_ms();  // platform_wall_ms() cut to 32 bits: compare by subtraction
// Local time as "2024-01-02 03:04:05.678", cut to size - 2 characters.
void platform_get_localtime_str(char *buf, uint32_t size);

}  // namespace zeb

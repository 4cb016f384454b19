#pragma once

#include <atomic>
#include <cstdint>

#include "log/platform_time.h"

namespace zeb_test {

// Replaces the clocks while it lives. Time stands still until advance_ms; sleeping returns at once. So a
// schedule of a minute runs in no time; only one may live at a time.
class fake_clock {
  public:
    explicit fake_clock(uint64_t mono_ms = 1000000, uint64_t wall_ms = 1700000000000) {
        mono().store(mono_ms);
        wall().store(wall_ms);
        slept().store(0);
        zeb::platform_set_clock(&table());
    }
    ~fake_clock() { zeb::platform_set_clock(nullptr); }
    fake_clock(const fake_clock &) = delete;
    fake_clock &operator=(const fake_clock &) = delete;

    void advance_ms(uint64_t ms) {
        mono().fetch_add(ms);
        wall().fetch_add(ms);
    }
    void set_mono_ms(uint64_t ms) { mono().store(ms); }
    void set_wall_ms(uint64_t ms) { wall().store(ms); }
    uint64_t mono_ms() const { return mono().load(); }
    uint64_t wall_ms() const { return wall().load(); }
    uint64_t slept_us() const { return slept().load(); }  // the sum of all sleeps asked for

  private:
    static std::atomic<uint64_t> &mono() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static std::atomic<uint64_t> &wall() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static std::atomic<uint64_t> &slept() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static const zeb::platform_clock &table() {
        static const zeb::platform_clock clock{
            [] { return mono().load(); },
            [] { return wall().load(); },
            [](uint64_t us) { slept().fetch_add(us); },
        };
        return clock;
    }
};

}  // namespace zeb_test

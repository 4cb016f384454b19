#pragma once

#include <time.h>

#include <atomic>

#include "log/platform_time.h"

namespace zeb_test {

// The real clocks plus what the test has leapt ahead; sleeping is real. For a running broker, whose threads
// must keep their beat while hours pass.
class stepped_clock {
  public:
    stepped_clock() {
        leap() += k_day_ms;  // never back to where an earlier test has been: some schedules outlive a broker
        zeb::platform_set_clock(&table());
    }
    ~stepped_clock() { zeb::platform_set_clock(nullptr); }
    stepped_clock(const stepped_clock &) = delete;
    stepped_clock &operator=(const stepped_clock &) = delete;

    void advance_ms(uint64_t ms) { leap() += ms; }

  private:
    static constexpr uint64_t k_day_ms = 86400000;

    static std::atomic<uint64_t> &leap() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static uint64_t read(clockid_t id) {
        timespec now{};
        clock_gettime(id, &now);
        return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000 +
               leap();
    }
    static const zeb::platform_clock &table() {
        static const zeb::platform_clock clock{[] { return read(CLOCK_MONOTONIC); },
                                               [] { return read(CLOCK_REALTIME); }, nullptr};
        return clock;
    }
};

}  // namespace zeb_test

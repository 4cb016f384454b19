#pragma once

#include <atomic>
#include <cstdint>

#include "log/platform_time.h"

namespace zeb_fuzz {

// Time as the input wants it: it stands still until advance_ms, and sleeping takes no time but moves it.
class fuzz_clock {
  public:
    static void install() { zeb::platform_set_clock(&s_table); }
    static void reset() {
        s_mono_ms.store(k_start_ms);
        s_wall_ms.store(k_wall_start_ms);
    }
    static void advance_ms(uint64_t ms) {
        s_mono_ms.fetch_add(ms);
        s_wall_ms.fetch_add(ms);
    }
    // The time of day is set, which no other clock notices.
    static void step_wall_ms(int64_t ms) { s_wall_ms.fetch_add(static_cast<uint64_t>(ms)); }

  private:
    static constexpr uint64_t k_start_ms = 1000000;
    static constexpr uint64_t k_wall_start_ms = 1700000000000;

    static inline std::atomic<uint64_t> s_mono_ms{k_start_ms};
    static inline std::atomic<uint64_t> s_wall_ms{k_wall_start_ms};
    static inline const zeb::platform_clock s_table = {
        [] { return s_mono_ms.load(); },
        [] { return s_wall_ms.load(); },
        [](uint64_t us) { advance_ms((us + 999) / 1000); },
    };
};

}  // namespace zeb_fuzz

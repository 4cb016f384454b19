// CLOCK_MONOTONIC in nanoseconds, the one clock of this program.
#pragma once

#include <time.h>

#include <cstdint>

namespace zeb_load {

constexpr uint64_t k_ns_per_us = 1000;
constexpr uint64_t k_ns_per_ms = 1000 * k_ns_per_us;
constexpr uint64_t k_ns_per_s = 1000 * k_ns_per_ms;

inline uint64_t now_ns() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
    return static_cast<uint64_t>(now.tv_sec) * k_ns_per_s + static_cast<uint64_t>(now.tv_nsec);
}

inline uint64_t to_ns(double seconds) {
    return static_cast<uint64_t>(seconds * 1e9);
}

}  // namespace zeb_load

// When each message is due. Message k of publisher i is number k * publishers + i of all, and those are due
// at equal distances; so publishers are staggered against each other.
#pragma once

#include <cstdint>

#include "clock.h"

namespace zeb_load {

class schedule {
  public:
    // `burst_ns` 0: smooth; else what is due within a burst's time is due at its beginning.
    schedule(uint64_t rate, uint64_t burst_ns, uint64_t start_ns)
        : period_ns_(1e9 / static_cast<double>(rate)), burst_ns_(burst_ns), start_ns_(start_ns) {}

    uint64_t due_ns(uint64_t number) const {
        const uint64_t after = static_cast<uint64_t>(static_cast<double>(number) * period_ns_);
        return start_ns_ + (burst_ns_ == 0 ? after : after / burst_ns_ * burst_ns_);
    }

    // The first number that is due at that time or later.
    uint64_t first_at(uint64_t time_ns) const {
        uint64_t low = 0;
        uint64_t high = 1;
        while (due_ns(high) < time_ns) high *= 2;
        while (low < high) {
            const uint64_t middle = low + (high - low) / 2;
            if (due_ns(middle) < time_ns)
                low = middle + 1;
            else
                high = middle;
        }
        return low;
    }

  private:
    double period_ns_;
    uint64_t burst_ns_;
    uint64_t start_ns_;
};

}  // namespace zeb_load

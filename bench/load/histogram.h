// Latencies in buckets that grow with the value: 128 to each power of two, which is a resolution under 1
// percent.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace zeb_load {

class histogram {
  public:
    void add(uint64_t value) {
        ++counts_[index_of(value)];
        ++total_;
        max_ = std::max(max_, value);
    }

    uint64_t max() const { return max_; }

    // The value that `part` (0 to 1) of all values do not exceed; 0 without values.
    uint64_t quantile(double part) const {
        const uint64_t wanted = std::clamp<uint64_t>(
            static_cast<uint64_t>(part * static_cast<double>(total_) + 0.5), 1, total_ + 1);
        uint64_t seen = 0;
        for (size_t i = 0; i < counts_.size(); ++i) {
            seen += counts_[i];
            if (seen >= wanted) return std::min(middle_of(i), max_);
        }
        return max_;
    }

  private:
    static constexpr unsigned k_bits = 7;
    static constexpr uint64_t k_per_octave = 1u << k_bits;

    // Values below one octave's count are their own index.
    static size_t index_of(uint64_t value) {
        if (value < k_per_octave) return static_cast<size_t>(value);
        const unsigned shift = static_cast<unsigned>(std::bit_width(value)) - k_bits - 1;
        return (static_cast<size_t>(shift) << k_bits) + static_cast<size_t>(value >> shift);
    }

    static uint64_t middle_of(size_t index) {
        if (index < k_per_octave) return index;
        const size_t shift = (index >> k_bits) - 1;
        const uint64_t low = (index - (shift << k_bits)) << shift;
        return low + ((uint64_t{1} << shift) >> 1);
    }

    std::vector<uint64_t> counts_ = std::vector<uint64_t>((64 - k_bits + 1) << k_bits);
    uint64_t total_ = 0;
    uint64_t max_ = 0;
};

}  // namespace zeb_load

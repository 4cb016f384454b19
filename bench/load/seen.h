// Which sequence numbers of one publisher have come: exact, and one number as long as they come in order.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace zeb_load {

class seen_numbers {
  public:
    // True when the number is new. Callers bound it by what was published, so the bitmap is bounded too.
    bool add(uint64_t number) {
        if (!bits_) {
            if (number == next_) {
                ++next_;
                return true;
            }
            if (number < next_) return false;
            bits_ = std::make_unique<std::vector<uint64_t>>();
        }
        // Everything below next_ came in order before the first gap.
        if (number < next_) return false;
        return add_bit(number - next_);
    }

  private:
    bool add_bit(uint64_t bit) {
        const size_t word = static_cast<size_t>(bit / 64);
        if (word >= bits_->size()) bits_->resize(word * 2 + 1);  // doubles, so that growing stays rare
        const uint64_t mask = uint64_t{1} << (bit % 64);
        if (((*bits_)[word] & mask) != 0) return false;
        (*bits_)[word] |= mask;
        return true;
    }

    uint64_t next_ = 0;
    std::unique_ptr<std::vector<uint64_t>> bits_;
};

}  // namespace zeb_load

#pragma once

#include <cstdint>

namespace zeb {

// A set of table positions 0..N-1, read back in ascending order: that is the order of the table, so whatever
// order entries are found in, nothing needs sorting.
template <int N>
class position_set {
  public:
    void add(int pos) {
        count_ += has(pos) ? 0 : 1;
        words_[pos / 64] |= uint64_t{1} << (pos % 64);
    }
    bool has(int pos) const { return (words_[pos / 64] >> (pos % 64) & 1) != 0; }

    int count() const { return count_; }

    // The lowest member that is not below `from`, or -1.
    int next(int from) const {
        if (from >= N) return -1;
        int word = from / 64;
        uint64_t bits = words_[word] & (~uint64_t{0} << (from % 64));
        while (bits == 0) {
            if (++word == k_words) return -1;
            bits = words_[word];
        }
        return word * 64 + __builtin_ctzll(bits);
    }

  private:
    static constexpr int k_words = (N + 63) / 64;
    uint64_t words_[k_words] = {};
    int count_ = 0;
};

}  // namespace zeb

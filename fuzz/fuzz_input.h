#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zeb_fuzz {

// An input read front to back as choices. What lies behind its end reads as zero, so that every input is a
// whole one and a shorter input stays the beginning of a longer one.
class fuzz_input {
  public:
    fuzz_input(const uint8_t *data, std::size_t size) : at_(data), end_(data + size) {}

    bool empty() const { return at_ == end_; }
    std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }

    uint8_t u8() { return at_ != end_ ? *at_++ : uint8_t{0}; }
    uint16_t u16() {
        const unsigned high = u8();
        return static_cast<uint16_t>(high << 8 | u8());
    }
    uint32_t u32() {
        const uint32_t high = u16();
        return high << 16 | u16();
    }
    // 0..n-1
    uint32_t below(uint32_t n) { return n <= 256 ? u8() % n : u16() % n; }

    // Up to n bytes, fewer at the end of the input.
    std::vector<uint8_t> bytes(std::size_t n) {
        n = std::min(n, left());
        std::vector<uint8_t> out(at_, at_ + n);
        at_ += n;
        return out;
    }
    std::vector<uint8_t> rest() { return bytes(left()); }
    // A block preceded by its length, one byte long for the common sizes.
    std::vector<uint8_t> block() {
        const uint8_t n = u8();
        return bytes(n < 255 ? n : u16());
    }
    std::string text() {
        const std::vector<uint8_t> raw = block();
        return {raw.begin(), raw.end()};
    }

  private:
    const uint8_t *at_;
    const uint8_t *end_;
};

// The bytes in a heap block of exactly their size, so that one byte too far is seen.
class exact_block {
  public:
    template <class Bytes>
    explicit exact_block(const Bytes &from) : size_(from.size()), data_(new uint8_t[from.size()]) {
        if (size_ > 0) std::memcpy(data_, from.data(), size_);
    }
    ~exact_block() { delete[] data_; }
    exact_block(const exact_block &) = delete;
    exact_block &operator=(const exact_block &) = delete;

    uint8_t *data() const { return data_; }
    int size() const { return static_cast<int>(size_); }

  private:
    std::size_t size_;
    uint8_t *data_;
};

}  // namespace zeb_fuzz

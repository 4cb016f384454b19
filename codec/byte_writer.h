#pragma once

#include <cstdint>
#include <cstring>

#include "codec/mqtt_codec.h"

namespace zeb {

// Builds a packet front to back. A write past the capacity stores nothing but keeps counting, so that the
// caller can report how much room was needed.
struct byte_writer {
    uint8_t *buf;
    int cap;
    int len = 0;  // bytes needed so far, also past cap

    bool fits() const noexcept { return len <= cap; }

    void bytes(const void *data, int n) noexcept {
        if (n > 0 && n <= cap - len) memcpy(buf + len, data, static_cast<size_t>(n));
        len += n;
    }
    void u8(uint8_t v) noexcept { bytes(&v, 1); }
    void be16(uint16_t v) noexcept {
        u8(static_cast<uint8_t>(v >> 8));
        u8(static_cast<uint8_t>(v));
    }
    void be32(uint32_t v) noexcept {
        be16(static_cast<uint16_t>(v >> 16));
        be16(static_cast<uint16_t>(v));
    }
    // A text or binary field: two length bytes, then the n bytes.
    void field(const void *data, int n) noexcept {
        be16(static_cast<uint16_t>(n));
        bytes(data, n);
    }
};

}  // namespace zeb

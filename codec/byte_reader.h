#pragma once

#include <cstdint>
#include <cstring>

#include "codec/mqtt_codec.h"

namespace zeb {

// Reads a packet front to back and says no instead of running past `end`. A read that fails moves nothing and
// stores nothing. Positions count from the start of the packet, because that is what the log lines print.
struct byte_reader {
    const uint8_t *buf;
    int pos;  // next byte
    int end;  // first byte that may not be read

    int left() const noexcept { return end > pos ? end - pos : 0; }

    bool bytes(int n, const uint8_t **out) noexcept {
        if (n < 0 || n > left()) return false;
        *out = buf + pos;
        pos += n;
        return true;
    }

    // A big-endian number of 1 to 4 bytes.
    bool number(int size, uint32_t *out) noexcept {
        const uint8_t *b = nullptr;
        if (!bytes(size, &b)) return false;
        uint32_t value = 0;
        for (int i = 0; i < size; ++i) value = value << 8 | b[i];
        *out = value;
        return true;
    }

    bool u8(uint8_t *out) noexcept { return narrow(1, out); }
    bool be16(uint16_t *out) noexcept { return narrow(2, out); }
    bool be32(uint32_t *out) noexcept { return number(4, out); }

    // A variable-length integer of at most three bytes.
    bool varint(int32_t *out) noexcept {
        int used = 0;
        const int32_t value = codec_decode_remaining_length(buf + pos, left(), &used);
        if (value < 0) return false;
        *out = value;
        pos += used;
        return true;
    }

    // Copies n bytes into a text field, whose last byte stays for the terminator.
    template <int size>
    bool text(int n, char (&out)[size]) noexcept {
        const uint8_t *b = nullptr;
        if (n >= size || !bytes(n, &b)) return false;
        memcpy(out, b, static_cast<size_t>(n));
        out[n] = '\0';
        return true;
    }

    // Moves on by n bytes, at most to the end.
    void skip(int n) noexcept { pos += n < left() ? n : left(); }

    // The next n bytes as a reader of their own, fewer when fewer are left.
    byte_reader block(int n) const noexcept { return {buf, pos, pos + (n < left() ? n : left())}; }

  private:
    template <typename T>
    bool narrow(int size, T *out) noexcept {
        uint32_t value = 0;
        if (!number(size, &value)) return false;
        *out = static_cast<T>(value);
        return true;
    }
};

}  // namespace zeb

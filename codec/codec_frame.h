#pragma once

#include <cstdint>

#include "codec/byte_reader.h"
#include "codec/byte_writer.h"
#include "codec/mqtt_codec.h"
#include "log/agent_log.h"

// What all encoders and decoders share: the fixed header, the context's fields and the trace.
namespace zeb {

// The first byte and the remaining length of a received packet.
struct fixed_header {
    uint8_t first;
    int remaining;  // -1 when the length does not decode
    int used;       // bytes of the length; 0 when it does not decode

    int type() const noexcept { return first >> 4; }
    int flags() const noexcept { return first & 0x0F; }
    int total() const noexcept { return 1 + used + remaining; }
    bool whole_in(int len) const noexcept { return remaining >= 0 && total() <= len; }
};

// Reads the fixed header; the reader must hold at least the first byte.
fixed_header read_fixed_header(byte_reader *r) noexcept;

// The remaining length of a packet that is being built, encoded before the copy so that its size is known.
struct length_field {
    uint8_t bytes[4];
    int used;   // 1..4 when it could be encoded
    int total;  // of the whole packet

    bool valid() const noexcept { return used >= 1 && used <= 4; }
};

length_field encode_length_field(int body_len) noexcept;

// Puts a packet together in the caller's buffer, which must hold length.total bytes, and reports its size.
void write_packet(uint8_t first, const length_field &length, const byte_writer &body, uint8_t *buf,
                  int *buf_len) noexcept;

inline bool is_known_level(uint32_t level) noexcept {
    return level == 4 || level == 5;
}

// The context is shared by the connection's thread and those that send to it; each field stands for itself.
inline uint32_t codec_level(const mqtt_codec_ctx *ctx) noexcept {
    return ctx->protocol_version.load(std::memory_order_relaxed);
}
inline void codec_set_level(mqtt_codec_ctx *ctx, uint32_t level) noexcept {
    ctx->protocol_version.store(level, std::memory_order_relaxed);
}
inline bool codec_level_is_fixed(const mqtt_codec_ctx *ctx) noexcept {
    return ctx->level_fixed.load(std::memory_order_relaxed) != 0;
}
// The level that a packet's shape suggests.
inline void codec_suggest_level(mqtt_codec_ctx *ctx, uint32_t level) noexcept {
    if (!codec_level_is_fixed(ctx)) codec_set_level(ctx, level);
}
inline void codec_set_type(mqtt_codec_ctx *ctx, int type) noexcept {
    ctx->last_packet_type.store(static_cast<uint32_t>(type), std::memory_order_relaxed);
}

// The end of every successful decode.
inline int finish_decode(mqtt_codec_ctx *ctx, int type, int consumed, int *buf_len) noexcept {
    codec_set_type(ctx, type);
    ctx->last_packet_len.store(static_cast<uint32_t>(consumed), std::memory_order_relaxed);
    *buf_len = consumed;
    return MQTT_CODEC_OK;
}

// For %p, which takes no other pointer type, and for the length behind a pointer that may be null.
inline const void *addr(const void *p) noexcept {
    return p;
}
inline int length_or_zero(const int *buf_len) noexcept {
    return buf_len != nullptr ? *buf_len : 0;
}

// Dumps a packet at debug level. Not for CONNECT: passwords stay out of the log.
void trace_packet(const char *title, const uint8_t *data, int len) noexcept;

}  // namespace zeb

#include "codec/codec_frame.h"

namespace zeb {

fixed_header read_fixed_header(byte_reader *r) noexcept {
    fixed_header h{0, -1, 0};
    if (!r->u8(&h.first)) return h;
    const int start = r->pos;
    int32_t remaining = -1;
    if (!r->varint(&remaining)) return h;
    h.remaining = remaining;
    h.used = r->pos - start;
    return h;
}

length_field encode_length_field(int body_len) noexcept {
    length_field length{};
    length.used = codec_encode_remaining_length(length.bytes, static_cast<uint32_t>(body_len));
    length.total = 1 + length.used + body_len;
    return length;
}

void write_packet(uint8_t first, const length_field &length, const byte_writer &body, uint8_t *buf,
                  int *buf_len) noexcept {
    byte_writer out{buf, *buf_len};
    out.u8(first);
    out.bytes(length.bytes, length.used);
    out.bytes(body.buf, body.len);
    *buf_len = out.len;
}

void trace_packet(const char *title, const uint8_t *data, int len) noexcept {
    if (!agent_log_enabled(AGENT_LOG_DEBUG)) return;
    constexpr int k_max_dump_bytes = UINT16_MAX;
    agent_log_hexdump(title, data, static_cast<uint16_t>(len < k_max_dump_bytes ? len : k_max_dump_bytes));
}

}  // namespace zeb

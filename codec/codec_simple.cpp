#include "codec/codec_frame.h"

namespace zeb {

namespace {

constexpr int k_min_capacity = 128;
constexpr int k_min_packet_bytes = 2;
constexpr int k_packet_bytes = 2;
constexpr int k_disconnect_bytes_v5 = 3;

bool is_simple_type(int type) noexcept {
    return type >= MQTT_PKT_PINGREQ && type <= MQTT_PKT_DISCONNECT;
}

}  // namespace

int mqtt_codec_encode_simple(mqtt_codec_ctx *ctx, int packet_type, uint8_t *buf, int *buf_len) {
    const int capacity = length_or_zero(buf_len);
    if (ctx == nullptr || buf == nullptr || capacity < k_min_capacity) {
        ZEB_LOG(AGENT_LOG_ERROR, "Simple encode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d)",
                addr(ctx), addr(buf), addr(buf_len), capacity);
        return MQTT_CODEC_ERR_PARAM;
    }
    if (!is_simple_type(packet_type)) {
        ZEB_LOG(AGENT_LOG_ERROR, "Simple encode: unsupported packet type %d", packet_type);
        return MQTT_CODEC_ERR_UNSUPPORTED;
    }
    const uint32_t level = codec_level(ctx);
    if (!is_known_level(level)) {
        ZEB_LOG(AGENT_LOG_ERROR, "Simple encode: unsupported version %d", static_cast<int>(level));
        return MQTT_CODEC_ERR_VERSION;
    }
    // Kept: a 5.0 DISCONNECT is one byte longer than its remaining length says.
    const bool extra_byte = packet_type == MQTT_PKT_DISCONNECT && level == 5;
    const int need = extra_byte ? k_disconnect_bytes_v5 : k_packet_bytes;
    // GCOV_EXCL_START: the capacity was checked before
    if (need > capacity) {
        ZEB_LOG(AGENT_LOG_ERROR, "Simple encode: buffer overflow (need %d, have %d)", need, capacity);
        return MQTT_CODEC_ERR_BUFFER;
    }
    // GCOV_EXCL_STOP
    byte_writer out{buf, capacity};
    out.u8(static_cast<uint8_t>(packet_type << 4));
    out.u8(0);
    if (extra_byte) out.u8(0);
    *buf_len = out.len;
    trace_packet("Simple encode: packet", buf, out.len);
    codec_set_type(ctx, packet_type);
    return MQTT_CODEC_OK;
}

int mqtt_codec_decode_simple(mqtt_codec_ctx *ctx, int expected_type, const uint8_t *buf, int *buf_len) {
    const int len = length_or_zero(buf_len);
    if (ctx == nullptr || buf == nullptr || len < k_min_packet_bytes) {
        ZEB_LOG(AGENT_LOG_ERROR, "Simple decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d)",
                addr(ctx), addr(buf), addr(buf_len), len);
        return MQTT_CODEC_ERR_PARAM;
    }
    trace_packet("Simple decode: input", buf, len);
    byte_reader r{buf, 0, len};
    const fixed_header h = read_fixed_header(&r);
    if (h.type() != expected_type) {
        ZEB_LOG(AGENT_LOG_ERROR, "Simple decode: packet type mismatch (expected=%d, actual=%d)",
                expected_type, h.type());
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (h.remaining < 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "Simple decode: invalid remaining length");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    r.skip(h.remaining);
    codec_suggest_level(ctx, h.remaining != 0 ? 5 : 4);
    return finish_decode(ctx, expected_type, r.pos, buf_len);
}

}  // namespace zeb

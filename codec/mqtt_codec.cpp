#include "codec/mqtt_codec.h"

#include "log/agent_log.h"

namespace zeb {

namespace {

struct code_text {
    int code;
    const char *text;
};

constexpr code_text k_error_texts[] = {
    {MQTT_CODEC_ERR_PARAM, "参数非法"},           {MQTT_CODEC_ERR_VERSION, "协议版本不支持"},
    {MQTT_CODEC_ERR_BUFFER, "缓冲区不足"},        {MQTT_CODEC_ERR_MALFORMED, "报文格式错误"},
    {MQTT_CODEC_ERR_UNSUPPORTED, "功能暂不支持"},
};

constexpr uint8_t k_more_bytes_bit = 0x80;
constexpr uint32_t k_group_mask = 0x7F;
constexpr int k_group_bits = 7;
constexpr int k_max_encoded_bytes = 4;
constexpr int k_max_decoded_bytes = 3;  // kept below the encoder's four: longer packets are refused

}  // namespace

int mqtt_codec_ctx_init(mqtt_codec_ctx *ctx) {
    if (ctx == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "mqtt_codec_ctx_init: ctx is NULL");
        return MQTT_CODEC_ERR_PARAM;
    }
    ctx->protocol_version.store(4, std::memory_order_relaxed);
    ctx->last_packet_type.store(0, std::memory_order_relaxed);
    ctx->last_packet_len.store(0, std::memory_order_relaxed);
    ctx->level_fixed.store(0, std::memory_order_relaxed);
    ZEB_LOG(AGENT_LOG_DEBUG, "mqtt_codec_ctx_init: success");
    return MQTT_CODEC_OK;
}

const char *mqtt_codec_error_str(int code) {
    for (const code_text &row : k_error_texts)
        if (row.code == code) return row.text;
    return "未知错误";
}

int codec_encode_remaining_length(uint8_t *buf, uint32_t len) {
    if (buf == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "codec_encode_remaining_length: buf is NULL");
        return 0;
    }
    if (len > MQTT_MAX_REMAINING_LENGTH) {
        ZEB_LOG(AGENT_LOG_ERROR, "codec_encode_remaining_length: len=%u exceeds max=%u", len,
                MQTT_MAX_REMAINING_LENGTH);
        return 0;
    }
    uint32_t rest = len;
    for (int i = 0; i < k_max_encoded_bytes; ++i) {
        const uint8_t group = static_cast<uint8_t>(rest & k_group_mask);
        rest >>= k_group_bits;
        buf[i] = rest > 0 ? static_cast<uint8_t>(group | k_more_bytes_bit) : group;
        if (rest == 0) return i + 1;
    }
    // GCOV_EXCL_START: four bytes hold every length up to the maximum
    ZEB_LOG(AGENT_LOG_ERROR, "codec_encode_remaining_length: len=%u requires more than 4 bytes", len);
    return 0;
    // GCOV_EXCL_STOP
}

int32_t codec_decode_remaining_length(const uint8_t *buf, int avail, int *consumed) {
    if (buf == nullptr || consumed == nullptr || avail < 1) return -1;
    int32_t value = 0;
    for (int i = 0; i < avail && i < k_max_decoded_bytes; ++i) {
        // Three groups stay far below MQTT_MAX_REMAINING_LENGTH, so the sum needs no check of its own.
        value += static_cast<int32_t>((buf[i] & k_group_mask) << (k_group_bits * i));
        if ((buf[i] & k_more_bytes_bit) == 0) {
            *consumed = i + 1;
            return value;
        }
    }
    return -1;
}

}  // namespace zeb

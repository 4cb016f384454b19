#pragma once

#include <atomic>
#include <cstdint>

#include "sdk/zeb_sdk_mqtt_broker.h"  // mqtt_connect_para

// Turns MQTT 3.1.1 (level 4) and MQTT 5.0 (level 5) control packets into records and back.
//
// Nothing is allocated and nothing is kept between calls but the fields of the context. Encoders and decoders
// may run at the same time on one context: the connection's thread decodes while others encode for it. The
// record and the buffer of a call belong to that call alone. No locks, no clocks; all results are
// mqtt_codec_error values.
//
// Wire numbers are big-endian, packet identifiers in records are host-order numbers. Texts of a decoded
// record are NUL-terminated; texts handed to an encoder are never read past their arrays.
namespace zeb {

using ::mqtt_connect_para;

enum mqtt_codec_error {
    MQTT_CODEC_OK = 0,
    MQTT_CODEC_ERR_PARAM = -1,
    MQTT_CODEC_ERR_VERSION = -2,
    MQTT_CODEC_ERR_BUFFER = -3,
    MQTT_CODEC_ERR_MALFORMED = -4,
    MQTT_CODEC_ERR_UNSUPPORTED = -5
};

enum mqtt_packet_type {
    MQTT_PKT_CONNECT = 1,
    MQTT_PKT_CONNACK = 2,
    MQTT_PKT_PUBLISH = 3,
    MQTT_PKT_PUBACK = 4,
    MQTT_PKT_PUBREC = 5,
    MQTT_PKT_PUBREL = 6,
    MQTT_PKT_PUBCOMP = 7,
    MQTT_PKT_SUBSCRIBE = 8,
    MQTT_PKT_SUBACK = 9,
    MQTT_PKT_UNSUBSCRIBE = 10,
    MQTT_PKT_UNSUBACK = 11,
    MQTT_PKT_PINGREQ = 12,
    MQTT_PKT_PINGRESP = 13,
    MQTT_PKT_DISCONNECT = 14
};

inline constexpr uint32_t MQTT_MAX_REMAINING_LENGTH = 268435455;  // 0xFFFFFFF
inline constexpr int MQTT_MAX_TOPIC = 256;
inline constexpr int MQTT_MAX_PAYLOAD = 2048;
inline constexpr int MQTT_MAX_FILTERS = 16;

struct mqtt_codec_ctx {
    std::atomic<uint32_t> protocol_version;  // 4 or 5; relaxed
    std::atomic<uint32_t> last_packet_type;  // relaxed
    std::atomic<uint32_t> last_packet_len;   // relaxed

    // 0: a packet that looks like the other level changes the level. 1: only CONNECT and CONNACK set it, and
    // a PUBLISH has a property block exactly at level 5. Relaxed.
    std::atomic<uint8_t> level_fixed{0};
};

struct mqtt_connack_para {
    uint8_t session_present;
    uint8_t reason_code;
    uint32_t session_expiry_interval;
    uint16_t receive_maximum;
    uint16_t topic_alias_maximum;
    uint32_t maximum_packet_size;
};

struct mqtt_publish_para {
    char topic[257];
    uint8_t payload[2048];  // not terminated
    uint32_t payload_len;
    uint16_t packet_id;
    uint32_t qos;
    uint8_t retain;
    uint8_t dup;
    uint32_t msg_expiry_interval;
    uint16_t topic_alias;
};

struct mqtt_ack_para {
    uint16_t msg_id;
    uint8_t reason_code;
    uint32_t reason_codes[16];
    int32_t reason_code_count;
};

struct mqtt_subscribe_para {
    uint16_t msg_id;
    char topic_filters[16][257];
    uint32_t requested_qos[16];
    int32_t filter_count;
    uint32_t subscription_identifier;
    uint8_t max_qos;
    uint8_t retain_handling;
};

struct mqtt_unsubscribe_para {
    uint16_t msg_id;
    char topic_filters[16][257];
    int32_t filter_count;
    uint8_t subscription_identifier;
};

struct mqtt_disconnect_para {
    uint8_t reason_code;
    uint32_t session_expiry_interval;
    char reason_string[65];
    uint16_t user_property_len;
    char user_property[65];
};

// Level 4 and everything else zero. MQTT_CODEC_ERR_PARAM when ctx is NULL.
int mqtt_codec_ctx_init(mqtt_codec_ctx *ctx);
const char *mqtt_codec_error_str(int code);  // "参数非法" .. "功能暂不支持", else "未知错误"

// Bytes written (1..4), 0 on failure.
int codec_encode_remaining_length(uint8_t *buf, uint32_t len);
// The value, or -1; *consumed is set only on success. At most three bytes (2097151) are accepted, one fewer
// than the encoder produces.
int32_t codec_decode_remaining_length(const uint8_t *buf, int avail, int *consumed);

// Encoders: *buf_len is the capacity of buf on entry and the packet length on success; it is not touched on
// failure. A capacity below 128 bytes is refused as a bad parameter (CONNACK of level 4: below 4; DISCONNECT:
// below 1). The context's level selects the layout and last_packet_type is set on success. A body that would
// overrun the encoder's own limit (2112 bytes; SUBSCRIBE and UNSUBSCRIBE 1024) gives MQTT_CODEC_ERR_BUFFER.
int mqtt_codec_encode_connect(mqtt_codec_ctx *ctx, const mqtt_connect_para *para, uint8_t *buf, int *buf_len);
int mqtt_codec_encode_connack(mqtt_codec_ctx *ctx, const mqtt_connack_para *para, uint8_t *buf, int *buf_len);
int mqtt_codec_encode_publish(mqtt_codec_ctx *ctx, const mqtt_publish_para *para, uint8_t *buf, int *buf_len);
int mqtt_codec_encode_ack(mqtt_codec_ctx *ctx, int packet_type, const mqtt_ack_para *para, uint8_t *buf,
                          int *buf_len);
int mqtt_codec_encode_simple(mqtt_codec_ctx *ctx, int packet_type, uint8_t *buf, int *buf_len);
int mqtt_codec_encode_subscribe(mqtt_codec_ctx *ctx, const mqtt_subscribe_para *para, uint8_t *buf,
                                int *buf_len);
int mqtt_codec_encode_unsubscribe(mqtt_codec_ctx *ctx, const mqtt_unsubscribe_para *para, uint8_t *buf,
                                  int *buf_len);
int mqtt_codec_encode_disconnect(mqtt_codec_ctx *ctx, const mqtt_disconnect_para *para, uint8_t *buf,
                                 int *buf_len);

// Where the two bytes of the packet identifier stand in an encoded PUBLISH, counted from its first byte. With
// it one encoded packet can be given to several receivers, each under an identifier of its own (high byte
// first).
//
// packet, len: a whole PUBLISH, as mqtt_codec_encode_publish leaves it in (buf, *buf_len).
// Returns the offset, at most len - 2; -1 when there is none: QoS 0, another packet type, a packet cut short.
int mqtt_codec_publish_id_offset(const uint8_t *packet, int len);

// Decoders: *buf_len is the number of bytes available on entry and where parsing ended on success, which is
// not always the packet's end: a stream is stepped through by its fixed headers, not by this. It is not
// touched on failure, when the record must not be used either.
//
// last_packet_len is that end, and last_packet_type is set with it on success; UNSUBSCRIBE sets the type as
// soon as it has accepted the first byte and DISCONNECT before it looks at the packet.
//
// The context's level is set by CONNECT (from the packet, also when a later field is refused), by CONNACK,
// PUBLISH, the acknowledgements and the simple packets (from the packet's shape), and by UNSUBSCRIBE when it
// was neither 4 nor 5. SUBSCRIBE and DISCONNECT follow it as it stands.
int mqtt_codec_decode_connect(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len, mqtt_connect_para *para);
int mqtt_codec_decode_connack(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len, mqtt_connack_para *para);
int mqtt_codec_decode_publish(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len, mqtt_publish_para *para);
int mqtt_codec_decode_ack(mqtt_codec_ctx *ctx, int expected_type, const uint8_t *buf, int *buf_len,
                          mqtt_ack_para *para);
int mqtt_codec_decode_simple(mqtt_codec_ctx *ctx, int expected_type, const uint8_t *buf, int *buf_len);
int mqtt_codec_decode_subscribe(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len,
                                mqtt_subscribe_para *para);
int mqtt_codec_decode_unsubscribe(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len,
                                  mqtt_unsubscribe_para *para);
int mqtt_codec_decode_disconnect(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len,
                                 mqtt_disconnect_para *para);

}  // namespace zeb

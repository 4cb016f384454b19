#include "fuzz/codec_round_trip.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/fuzz_check.h"

namespace zeb_fuzz {

using namespace zeb;

namespace {

constexpr int k_capacity = 4096;  // more than any packet of the encoders
constexpr int k_body_max = 2112;  // CONNECT and PUBLISH
constexpr int k_filters_body_max = 1024;

struct encoded {
    int rc;
    std::vector<uint8_t> bytes;
};

// Encodes into a block that is as large as the packet at first, then one byte too small for it.
template <typename Encode>
encoded encode(uint32_t level, Encode encoder) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    ctx.protocol_version.store(level);
    std::vector<uint8_t> buf(k_capacity);
    int len = k_capacity;
    const int rc = encoder(&ctx, buf.data(), &len);
    FUZZ_CHECK(rc <= MQTT_CODEC_OK && rc >= MQTT_CODEC_ERR_UNSUPPORTED);
    if (rc != MQTT_CODEC_OK) {
        FUZZ_CHECK(len == k_capacity);
        return {rc, {}};
    }
    FUZZ_CHECK(len >= 2 && len <= k_capacity);
    buf.resize(static_cast<std::size_t>(len));
    constexpr int k_min_capacity = 128;
    if (len > k_min_capacity) {
        const exact_block small(std::vector<uint8_t>(buf.begin(), buf.end() - 1));
        int room = small.size();
        FUZZ_CHECK(encoder(&ctx, small.data(), &room) == MQTT_CODEC_ERR_BUFFER && room == small.size());
    }
    return {rc, buf};
}

// Decodes the packet whole, with the level fixed or not, and returns the record; null when it is refused.
template <typename Para, typename Decode>
std::unique_ptr<Para> decode(uint32_t level, uint8_t fixed, const std::vector<uint8_t> &packet,
                             Decode decoder) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    ctx.protocol_version.store(level);
    ctx.level_fixed.store(fixed);
    const exact_block block(packet);
    auto para = std::make_unique<Para>();
    std::memset(static_cast<void *>(para.get()), 0xA5, sizeof *para);
    int len = block.size();
    if (decoder(&ctx, block.data(), &len, para.get()) != MQTT_CODEC_OK) return nullptr;
    FUZZ_CHECK(ctx.protocol_version.load() == level);
    return para;
}

template <std::size_t size>
int text_len(const char (&text)[size]) {
    return static_cast<int>(strnlen(text, size));
}

template <std::size_t size>
bool same_text(const char (&a)[size], const char (&b)[size]) {
    return strncmp(a, b, size) == 0;
}

// What the encoder should say of a record.
int expected_rc(uint32_t level, const mqtt_connect_para &p) {
    const int id = text_len(p.client_id);
    const int will_topic = text_len(p.will_topic);
    if (id == 0 || (level == 4 && id > 23) || (p.password_flag && !p.username_flag))
        return MQTT_CODEC_ERR_PARAM;
    if (p.will_flag && (will_topic == 0 || p.will_payload_len == 0)) return MQTT_CODEC_ERR_PARAM;
    int body = 6 + 1 + 1 + 2 + 2 + id;
    if (level == 5)
        body += 1 + 5 + 3 + (p.topic_alias_maximum ? 3 : 0) + (p.maximum_packet_size ? 5 : 0) +
                (p.request_response_info ? 2 : 0) + (p.request_problem_info ? 2 : 0);
    if (p.will_flag) body += 4 + will_topic + static_cast<int>(p.will_payload_len);
    if (p.will_flag && level == 5)
        body += 1 + (p.will_delay_interval ? 5 : 0) + (p.will_msg_expiry_interval ? 5 : 0);
    if (p.username_flag) body += 2 + static_cast<int>(p.username_len);
    if (p.password_flag) body += 2 + static_cast<int>(p.password_len);
    return body > k_body_max ? MQTT_CODEC_ERR_BUFFER : MQTT_CODEC_OK;
}

void check_same_will(uint32_t level, const mqtt_connect_para &p, const mqtt_connect_para &q) {
    FUZZ_CHECK(q.will_qos == p.will_qos && q.will_retain == p.will_retain);
    FUZZ_CHECK(same_text(q.will_topic, p.will_topic) && q.will_payload_len == p.will_payload_len);
    FUZZ_CHECK(std::memcmp(q.will_payload, p.will_payload, p.will_payload_len) == 0);
    FUZZ_CHECK(q.will_delay_interval == (level == 5 ? p.will_delay_interval : 0));
    FUZZ_CHECK(q.will_msg_expiry_interval == (level == 5 ? p.will_msg_expiry_interval : 0));
}

}  // namespace

void check_round_trip(uint32_t level, const mqtt_connect_para &p) {
    const encoded packet = encode(level, [&](mqtt_codec_ctx *ctx, uint8_t *buf, int *len) {
        return mqtt_codec_encode_connect(ctx, &p, buf, len);
    });
    FUZZ_CHECK(packet.rc == expected_rc(level, p));
    if (packet.rc != MQTT_CODEC_OK) return;
    const auto q = decode<mqtt_connect_para>(level, 0, packet.bytes, mqtt_codec_decode_connect);
    FUZZ_CHECK(q != nullptr);
    FUZZ_CHECK(same_text(q->client_id, p.client_id) && q->clean_start == p.clean_start);
    FUZZ_CHECK(q->keep_alive == p.keep_alive && q->will_flag == p.will_flag);
    if (p.will_flag) check_same_will(level, p, *q);
    FUZZ_CHECK(q->username_flag == p.username_flag && q->password_flag == p.password_flag);
    if (p.username_flag) FUZZ_CHECK(std::memcmp(q->username, p.username, p.username_len) == 0);
    if (p.password_flag) FUZZ_CHECK(std::memcmp(q->password, p.password, p.password_len) == 0);
    // The encoder begins the block with an identifier that the decoder does not know, and so skips the block.
    FUZZ_CHECK(q->session_expiry_interval == 0 && q->maximum_packet_size == 0 && q->receive_maximum == 0);
}

void check_round_trip(uint32_t level, const mqtt_connack_para &p) {
    const encoded packet = encode(level, [&](mqtt_codec_ctx *ctx, uint8_t *buf, int *len) {
        return mqtt_codec_encode_connack(ctx, &p, buf, len);
    });
    FUZZ_CHECK(packet.rc == MQTT_CODEC_OK);
    const auto q = decode<mqtt_connack_para>(level, 0, packet.bytes, mqtt_codec_decode_connack);
    FUZZ_CHECK(q != nullptr && q->session_present == p.session_present);
    FUZZ_CHECK(q->reason_code == (level == 5 ? p.reason_code : 0));
    // The decoder steps over the packet size by a length that it takes from it; one below 65536 has none.
    if (p.maximum_packet_size <= UINT16_MAX)
        FUZZ_CHECK(q->receive_maximum == (level == 5 ? p.receive_maximum : 0));
}

namespace {

int expected_rc(uint32_t level, const mqtt_publish_para &p) {
    const int topic = text_len(p.topic);
    if (topic == 0 || (p.qos != 0 && p.packet_id == 0)) return MQTT_CODEC_ERR_PARAM;
    int body = 2 + topic + (p.qos != 0 ? 2 : 0) + static_cast<int>(p.payload_len);
    if (level == 5) body += 1 + (p.msg_expiry_interval ? 5 : 0) + (p.topic_alias ? 4 : 0);
    return body > k_body_max ? MQTT_CODEC_ERR_BUFFER : MQTT_CODEC_OK;
}

// A decoder that goes by the packet's shape takes such a payload for a property block.
bool looks_like_properties(const mqtt_publish_para &p) {
    int used = 0;
    const int32_t len = codec_decode_remaining_length(p.payload, static_cast<int>(p.payload_len), &used);
    return len >= 0 && len <= static_cast<int>(p.payload_len) - used;
}

void check_same(uint32_t level, const mqtt_publish_para &p, const mqtt_publish_para &q) {
    FUZZ_CHECK(same_text(q.topic, p.topic) && q.qos == p.qos && q.retain == p.retain && q.dup == p.dup);
    FUZZ_CHECK(q.packet_id == (p.qos != 0 ? p.packet_id : 0) && q.payload_len == p.payload_len);
    FUZZ_CHECK(std::memcmp(q.payload, p.payload, p.payload_len) == 0);
    FUZZ_CHECK(q.msg_expiry_interval == (level == 5 ? p.msg_expiry_interval : 0) && q.topic_alias == 0);
}

}  // namespace

void check_round_trip(uint32_t level, const mqtt_publish_para &record) {
    mqtt_publish_para p = record;
    p.topic_alias = 0;  // encoded with a byte before it that no decoder expects
    const encoded packet = encode(level, [&](mqtt_codec_ctx *ctx, uint8_t *buf, int *len) {
        return mqtt_codec_encode_publish(ctx, &p, buf, len);
    });
    FUZZ_CHECK(packet.rc == expected_rc(level, p));
    if (packet.rc != MQTT_CODEC_OK) return;
    for (const uint8_t fixed : {0, 1}) {
        if (fixed == 0 && level == 4 && looks_like_properties(p)) continue;
        const auto q = decode<mqtt_publish_para>(level, fixed, packet.bytes, mqtt_codec_decode_publish);
        FUZZ_CHECK(q != nullptr);
        check_same(level, p, *q);
    }
    const int offset =
        mqtt_codec_publish_id_offset(packet.bytes.data(), static_cast<int>(packet.bytes.size()));
    FUZZ_CHECK((offset >= 0) == (p.qos != 0));
    if (p.qos == 0) return;
    const uint8_t *id = packet.bytes.data() + offset;
    FUZZ_CHECK((id[0] << 8 | id[1]) == p.packet_id);
}

namespace {

// The filters that the encoder writes, and what they come to on the wire with `extra` bytes behind each.
template <typename Para>
std::vector<int> written_filters(const Para &p, int extra, int *bytes) {
    std::vector<int> written;
    *bytes = 0;
    for (int i = 0; i < p.filter_count; ++i) {
        const int len = text_len(p.topic_filters[i]);
        if (len == 0) continue;
        *bytes += 2 + len + extra;
        written.push_back(i);
    }
    return written;
}

template <typename Para>
int expected_rc(uint32_t level, const Para &p, std::size_t written, int filter_bytes) {
    if (p.filter_count == 0 || p.msg_id == 0 || written == 0) return MQTT_CODEC_ERR_PARAM;
    const int properties = level != 5 ? 0 : p.subscription_identifier != 0 ? 4 : 1;
    return 2 + properties + filter_bytes > k_filters_body_max ? MQTT_CODEC_ERR_BUFFER : MQTT_CODEC_OK;
}

template <typename Para>
void check_same_filters(const Para &p, const Para &q, const std::vector<int> &written) {
    FUZZ_CHECK(q.msg_id == p.msg_id && q.filter_count == static_cast<int>(written.size()));
    for (std::size_t i = 0; i < written.size(); ++i)
        FUZZ_CHECK(same_text(q.topic_filters[i], p.topic_filters[written[i]]));
}

}  // namespace

void check_round_trip(uint32_t level, const mqtt_subscribe_para &p) {
    const encoded packet = encode(level, [&](mqtt_codec_ctx *ctx, uint8_t *buf, int *len) {
        return mqtt_codec_encode_subscribe(ctx, &p, buf, len);
    });
    int filter_bytes = 0;
    const std::vector<int> written = written_filters(p, 1, &filter_bytes);
    FUZZ_CHECK(packet.rc == expected_rc(level, p, written.size(), filter_bytes));
    if (packet.rc != MQTT_CODEC_OK) return;
    const auto q = decode<mqtt_subscribe_para>(level, 0, packet.bytes, mqtt_codec_decode_subscribe);
    FUZZ_CHECK(q != nullptr);
    check_same_filters(p, *q, written);
    for (std::size_t i = 0; i < written.size(); ++i)
        FUZZ_CHECK(q->requested_qos[i] == (p.requested_qos[written[i]] & 3));
    // The decoder takes the byte before the identifier for its value.
    FUZZ_CHECK(q->subscription_identifier == (level == 5 && p.subscription_identifier != 0 ? 1 : 0));
}

void check_round_trip(uint32_t level, const mqtt_unsubscribe_para &p) {
    const encoded packet = encode(level, [&](mqtt_codec_ctx *ctx, uint8_t *buf, int *len) {
        return mqtt_codec_encode_unsubscribe(ctx, &p, buf, len);
    });
    int filter_bytes = 0;
    const std::vector<int> written = written_filters(p, 0, &filter_bytes);
    FUZZ_CHECK(packet.rc == expected_rc(level, p, written.size(), filter_bytes));
    if (packet.rc != MQTT_CODEC_OK) return;
    const auto q = decode<mqtt_unsubscribe_para>(level, 0, packet.bytes, mqtt_codec_decode_unsubscribe);
    constexpr uint8_t k_own_property = 0x0B;  // an identifier of this value reads as one more property
    if (level == 5 && p.subscription_identifier == k_own_property) {
        FUZZ_CHECK(q == nullptr);
        return;
    }
    FUZZ_CHECK(q != nullptr);
    check_same_filters(p, *q, written);
    FUZZ_CHECK(q->subscription_identifier == (level == 5 && p.subscription_identifier != 0 ? 1 : 0));
}

void check_round_trip(uint32_t level, const mqtt_disconnect_para &p) {
    const encoded packet = encode(level, [&](mqtt_codec_ctx *ctx, uint8_t *buf, int *len) {
        return mqtt_codec_encode_disconnect(ctx, &p, buf, len);
    });
    const int reason = text_len(p.reason_string);
    const int user = p.user_property[0] != '\0' ? p.user_property_len : 0;
    const int properties =
        (p.session_expiry_interval ? 5 : 0) + (reason ? 3 + reason : 0) + (user ? 3 + user : 0);
    constexpr int k_properties_max = 128;
    const bool too_long = level == 5 && properties > k_properties_max;
    FUZZ_CHECK(packet.rc == (too_long ? MQTT_CODEC_ERR_BUFFER : MQTT_CODEC_OK));
    if (too_long) return;
    const auto q = decode<mqtt_disconnect_para>(level, 0, packet.bytes, mqtt_codec_decode_disconnect);
    FUZZ_CHECK(q != nullptr);
    if (level == 4) return;
    FUZZ_CHECK(q->reason_code == p.reason_code);
    FUZZ_CHECK(q->session_expiry_interval == p.session_expiry_interval);
    FUZZ_CHECK(same_text(q->reason_string, p.reason_string) && q->user_property_len == user);
    FUZZ_CHECK(std::memcmp(q->user_property, p.user_property, static_cast<std::size_t>(user)) == 0);
}

void check_round_trip(uint32_t level, int type, const mqtt_ack_para &p) {
    const encoded packet = encode(level, [&](mqtt_codec_ctx *ctx, uint8_t *buf, int *len) {
        return mqtt_codec_encode_ack(ctx, type, &p, buf, len);
    });
    FUZZ_CHECK(packet.rc == MQTT_CODEC_OK);
    // A SUBACK at level 4 with codes has the shape of level 5, so the level has to be fixed.
    const auto q =
        decode<mqtt_ack_para>(level, 1, packet.bytes,
                              [type](mqtt_codec_ctx *ctx, const uint8_t *data, int *len, mqtt_ack_para *to) {
                                  return mqtt_codec_decode_ack(ctx, type, data, len, to);
                              });
    FUZZ_CHECK(q != nullptr && q->msg_id == p.msg_id);
    if (type != MQTT_PKT_SUBACK) {
        FUZZ_CHECK(q->reason_code == (level == 5 ? p.reason_code : 0) && q->reason_code_count == 0);
    } else if (level == 5 && p.reason_code_count > 0 && (p.reason_codes[0] & 0xFF) == 0) {
        // Any other first code reads as the length of a property block.
        FUZZ_CHECK(q->reason_code == 0 && q->reason_code_count == p.reason_code_count);
        for (int i = 0; i < p.reason_code_count; ++i)
            FUZZ_CHECK(q->reason_codes[i] == (p.reason_codes[i] & 0xFF));
    }
}

void check_simple_round_trip(uint32_t level, int type) {
    const encoded packet = encode(level, [&](mqtt_codec_ctx *ctx, uint8_t *buf, int *len) {
        return mqtt_codec_encode_simple(ctx, type, buf, len);
    });
    FUZZ_CHECK((packet.rc == MQTT_CODEC_OK) == (type >= MQTT_PKT_PINGREQ && type <= MQTT_PKT_DISCONNECT));
    if (packet.rc != MQTT_CODEC_OK) return;
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    int len = static_cast<int>(packet.bytes.size());
    FUZZ_CHECK(mqtt_codec_decode_simple(&ctx, type, packet.bytes.data(), &len) == MQTT_CODEC_OK && len == 2);
}

}  // namespace zeb_fuzz

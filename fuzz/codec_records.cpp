// Records made of the input, for the way through the encoders.
#include <algorithm>
#include <cstring>
#include <memory>

#include "fuzz/codec_round_trip.h"
#include "fuzz/fuzz_check.h"

namespace zeb_fuzz {

using namespace zeb;

namespace {

constexpr int k_ack_types[] = {MQTT_PKT_PUBACK,  MQTT_PKT_PUBREC, MQTT_PKT_PUBREL,
                               MQTT_PKT_PUBCOMP, MQTT_PKT_SUBACK, MQTT_PKT_UNSUBACK};

// As much of the next block as the field holds; the length that was taken.
template <typename Char, std::size_t size>
uint32_t fill(fuzz_input *in, Char (&field)[size], std::size_t limit) {
    const std::vector<uint8_t> from = in->block();
    const std::size_t n = std::min(from.size(), limit);
    if (n > 0) std::memcpy(field, from.data(), n);
    return static_cast<uint32_t>(n);
}

template <std::size_t size>
uint32_t fill(fuzz_input *in, char (&field)[size]) {
    return fill(in, field, size - 1);
}

void read_record(fuzz_input *in, mqtt_connect_para *p) {
    const uint8_t flags = in->u8();
    p->clean_start = flags & 1;
    p->will_flag = flags >> 1 & 1;
    p->will_retain = flags >> 2 & 1;
    p->username_flag = flags >> 3 & 1;
    p->password_flag = flags >> 4 & 1;
    p->keep_alive = in->u16();
    p->session_expiry_interval = in->u32();
    p->receive_maximum = in->u16();
    p->topic_alias_maximum = in->u16();
    p->maximum_packet_size = in->u32();
    p->request_response_info = in->u8();
    p->request_problem_info = in->u8();
    (void)fill(in, p->client_id);
    p->will_qos = in->below(3);
    p->will_delay_interval = in->u32();
    p->will_msg_expiry_interval = in->u32();
    (void)fill(in, p->will_topic);
    p->will_payload_len = fill(in, p->will_payload, sizeof p->will_payload);
    // What a decoder gives with the flag has a length, and without it has none.
    p->username_len = fill(in, p->username);
    p->password_len = fill(in, p->password);
    if (p->username_len == 0) p->username_flag = 0;
    if (p->password_len == 0) p->password_flag = 0;
}

void read_record(fuzz_input *in, mqtt_connack_para *p) {
    p->session_present = in->u8() & 1;
    p->reason_code = in->u8();
    p->session_expiry_interval = in->u32();
    p->receive_maximum = in->u16();
    p->topic_alias_maximum = in->u16();
    p->maximum_packet_size = in->u32();
}

void read_record(fuzz_input *in, mqtt_publish_para *p) {
    const uint8_t flags = in->u8();
    p->retain = flags & 1;
    p->dup = flags >> 1 & 1;
    p->qos = static_cast<uint32_t>(flags >> 2) % 3;
    p->packet_id = in->u16();
    p->msg_expiry_interval = in->u32();
    p->topic_alias = in->u16();
    (void)fill(in, p->topic);
    p->payload_len = fill(in, p->payload, sizeof p->payload);
}

void read_record(fuzz_input *in, mqtt_subscribe_para *p) {
    p->msg_id = in->u16();
    p->subscription_identifier = in->u32();
    p->filter_count = static_cast<int32_t>(in->below(MQTT_MAX_FILTERS + 1));
    for (int i = 0; i < p->filter_count; ++i) {
        p->requested_qos[i] = in->u8();
        (void)fill(in, p->topic_filters[i]);
    }
}

void read_record(fuzz_input *in, mqtt_unsubscribe_para *p) {
    p->msg_id = in->u16();
    p->subscription_identifier = in->u8();
    p->filter_count = static_cast<int32_t>(in->below(MQTT_MAX_FILTERS + 1));
    for (int i = 0; i < p->filter_count; ++i) (void)fill(in, p->topic_filters[i]);
}

void read_record(fuzz_input *in, mqtt_disconnect_para *p) {
    p->reason_code = in->u8();
    p->session_expiry_interval = in->u32();
    (void)fill(in, p->reason_string);
    p->user_property_len = static_cast<uint16_t>(fill(in, p->user_property));
}

void read_record(fuzz_input *in, mqtt_ack_para *p) {
    p->msg_id = in->u16();
    p->reason_code = in->u8();
    p->reason_code_count = static_cast<int32_t>(in->below(17));
    for (int i = 0; i < p->reason_code_count; ++i) p->reason_codes[i] = in->u8();
}

template <typename Para>
std::unique_ptr<Para> record_of(fuzz_input *in) {
    auto p = std::make_unique<Para>();
    std::memset(static_cast<void *>(p.get()), 0, sizeof *p);
    read_record(in, p.get());
    return p;
}

// The input over and over.
template <typename Para>
std::unique_ptr<Para> bytes_as_record(const std::vector<uint8_t> &bytes) {
    auto p = std::make_unique<Para>();
    auto *to = reinterpret_cast<uint8_t *>(p.get());
    for (std::size_t i = 0; i < sizeof *p; ++i) to[i] = bytes.empty() ? 0xFF : bytes[i % bytes.size()];
    return p;
}

template <typename Encode>
void encode_into(uint32_t level, std::size_t capacity, Encode encoder) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    ctx.protocol_version.store(level);
    const exact_block buf{std::vector<uint8_t>(capacity)};
    int len = buf.size();
    const int rc = encoder(&ctx, buf.data(), &len);
    FUZZ_CHECK(rc <= MQTT_CODEC_OK && rc >= MQTT_CODEC_ERR_UNSUPPORTED);
    FUZZ_CHECK(rc == MQTT_CODEC_OK ? len >= 2 && len <= buf.size() : len == buf.size());
}

}  // namespace

void round_trip_of_input(uint32_t level, fuzz_input *in) {
    const uint8_t choice = in->u8();
    const int ack_type = k_ack_types[(choice >> 4) % 6];
    switch (choice % 8) {
        case 0:
            return check_round_trip(level, *record_of<mqtt_connect_para>(in));
        case 1:
            return check_round_trip(level, *record_of<mqtt_connack_para>(in));
        case 2:
            return check_round_trip(level, *record_of<mqtt_publish_para>(in));
        case 3:
            return check_round_trip(level, *record_of<mqtt_subscribe_para>(in));
        case 4:
            return check_round_trip(level, *record_of<mqtt_unsubscribe_para>(in));
        case 5:
            return check_round_trip(level, *record_of<mqtt_disconnect_para>(in));
        case 6:
            return check_round_trip(level, ack_type, *record_of<mqtt_ack_para>(in));
        default:
            return check_simple_round_trip(level, choice >> 4);
    }
}

void encode_anything(uint32_t level, fuzz_input *in) {
    const uint8_t choice = in->u8();
    const std::size_t capacity = in->u16() % 4097u;
    const std::vector<uint8_t> bytes = in->rest();
    const auto run = [&](auto record, auto encoder) {
        encode_into(level, capacity, [&](mqtt_codec_ctx *ctx, uint8_t *buf, int *len) {
            return encoder(ctx, record.get(), buf, len);
        });
    };
    switch (choice % 7) {
        case 0:
            return run(bytes_as_record<mqtt_connect_para>(bytes), mqtt_codec_encode_connect);
        case 1:
            return run(bytes_as_record<mqtt_connack_para>(bytes), mqtt_codec_encode_connack);
        case 2:
            return run(bytes_as_record<mqtt_publish_para>(bytes), mqtt_codec_encode_publish);
        case 3:
            return run(bytes_as_record<mqtt_subscribe_para>(bytes), mqtt_codec_encode_subscribe);
        case 4:
            return run(bytes_as_record<mqtt_unsubscribe_para>(bytes), mqtt_codec_encode_unsubscribe);
        case 5:
            return run(bytes_as_record<mqtt_disconnect_para>(bytes), mqtt_codec_encode_disconnect);
        default: {
            const auto record = bytes_as_record<mqtt_ack_para>(bytes);
            return encode_into(level, capacity, [&](mqtt_codec_ctx *ctx, uint8_t *buf, int *len) {
                return mqtt_codec_encode_ack(ctx, choice >> 4, record.get(), buf, len);
            });
        }
    }
}

}  // namespace zeb_fuzz

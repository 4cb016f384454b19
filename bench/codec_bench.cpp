// What it costs to read and to write each packet, at both protocol levels. Reading is what a peer can make
// the I/O thread do, so no decoder may stand out for its packet's length.
#include <cstring>
#include <functional>
#include <string>

#include "bench/bench_support.h"
#include "codec/mqtt_codec.h"
#include "tests/packet/packet_bytes.h"

namespace {

using zeb_bench::require;
using zeb_test::bytes;
using zeb_test::hex;
using zeb_test::operator+;
using namespace zeb;

constexpr uint32_t k_levels[] = {4, 5};
constexpr uint16_t k_msg_id = 0x1234;
constexpr uint32_t k_expiry_s = 3600;
constexpr char k_topic[] = "bench/building/7/floor/3/temperature";
// No packet reads as the start of a property block, whose length would be cut short here.
constexpr uint8_t k_payload_byte = 0xFF;

template <size_t N>
void put_text(char (&to)[N], const std::string &from) {
    snprintf(to, N, "%s", from.c_str());
}

std::string filter_text(int i) {
    return "bench/building/" + std::to_string(i) + "/+/temperature";
}

std::string case_name(const char *direction, const std::string &packet, uint32_t level) {
    return std::string(direction) + "/" + packet + "/v" + std::to_string(level);
}

void set_level(mqtt_codec_ctx *ctx, uint32_t level) {
    mqtt_codec_ctx_init(ctx);
    ctx->protocol_version.store(level, std::memory_order_relaxed);
}

bool is_whole_packet(const uint8_t *buf, int len) {
    int used = 0;
    return len >= 2 && codec_decode_remaining_length(buf + 1, len - 1, &used) == len - 1 - used;
}

template <auto Encode, typename Para>
void add_encoder(const std::string &packet, uint32_t level, const Para &para) {
    const auto run = [level, para](benchmark::State &state) {
        mqtt_codec_ctx ctx;
        set_level(&ctx, level);
        uint8_t buf[4096] = {};
        int len = 0;
        int64_t failed = 0;
        for (auto _ : state) {
            len = sizeof buf;
            failed += Encode(&ctx, &para, buf, &len) != MQTT_CODEC_OK ? 1 : 0;
            benchmark::ClobberMemory();
        }
        require(state, failed == 0 && is_whole_packet(buf, len), "not encoded");
        state.SetBytesProcessed(state.iterations() * len);
    };
    benchmark::RegisterBenchmark(case_name("encode", packet, level).c_str(), run);
}

// `sound` tells whether the record is what the packet says.
template <auto Decode, typename Para>
void add_decoder(const std::string &packet, uint32_t level, const bytes &wire,
                 const std::function<bool(const Para &)> &sound) {
    const auto run = [level, wire, sound](benchmark::State &state) {
        mqtt_codec_ctx ctx;
        set_level(&ctx, level);
        Para para{};
        int64_t failed = 0;
        for (auto _ : state) {
            int len = static_cast<int>(wire.size());
            failed += Decode(&ctx, wire.data(), &len, &para) != MQTT_CODEC_OK ? 1 : 0;
            benchmark::ClobberMemory();
        }
        require(state, failed == 0 && sound(para), "not decoded");
        state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(wire.size()));
    };
    benchmark::RegisterBenchmark(case_name("decode", packet, level).c_str(), run);
}

// Packets whose type is an argument, in the shape of the others.
template <int Type>
int encode_ack(mqtt_codec_ctx *ctx, const mqtt_ack_para *para, uint8_t *buf, int *len) {
    return mqtt_codec_encode_ack(ctx, Type, para, buf, len);
}
template <int Type>
int decode_ack(mqtt_codec_ctx *ctx, const uint8_t *buf, int *len, mqtt_ack_para *para) {
    return mqtt_codec_decode_ack(ctx, Type, buf, len, para);
}

struct no_fields {};

template <int Type>
int encode_simple(mqtt_codec_ctx *ctx, const no_fields *, uint8_t *buf, int *len) {
    return mqtt_codec_encode_simple(ctx, Type, buf, len);
}
template <int Type>
int decode_simple(mqtt_codec_ctx *ctx, const uint8_t *buf, int *len, no_fields *) {
    return mqtt_codec_decode_simple(ctx, Type, buf, len);
}

struct connect_case {
    const char *name;
    bool full;  // a will, a user name and a password; at level 5 properties as well
};
constexpr connect_case k_connects[] = {{"connect", false}, {"connect_full", true}};

mqtt_connect_para connect_record(bool full, uint32_t level) {
    mqtt_connect_para para{};
    put_text(para.client_id, "bench-client-0001");
    para.clean_start = 1;
    para.keep_alive = 60;
    if (level == 5) {
        para.session_expiry_interval = k_expiry_s;
        para.receive_maximum = 20;
    }
    if (!full) return para;
    para.will_flag = 1;
    para.will_qos = 1;
    put_text(para.will_topic, k_topic);
    para.will_payload_len = 4;
    memcpy(para.will_payload, "gone", para.will_payload_len);
    para.username_flag = para.password_flag = 1;
    put_text(para.username, "operator");
    put_text(para.password, "secret-secret");
    para.username_len = static_cast<uint32_t>(strlen(para.username));
    para.password_len = static_cast<uint32_t>(strlen(para.password));
    return para;
}

bytes connect_wire(bool full, uint32_t level) {
    zeb_test::connect_options o;
    o.level = static_cast<uint8_t>(level);
    if (level == 5 && full) o.properties = hex("11 00 00 0E 10 21 00 14 22 00 0A 27 00 00 10 00");
    if (level == 5 && full) o.will_properties = hex("18 00 00 00 05 02 00 00 0E 10");
    if (full) {
        o.will = true;
        o.will_topic = k_topic;
        o.user = "operator";
        o.password = "secret-secret";
    }
    return zeb_test::connect_packet("bench-client-0001", o);
}

void add_connect(const connect_case &c, uint32_t level) {
    add_encoder<mqtt_codec_encode_connect>(c.name, level, connect_record(c.full, level));
    add_decoder<mqtt_codec_decode_connect, mqtt_connect_para>(
        c.name, level, connect_wire(c.full, level), [c](const mqtt_connect_para &para) {
            return strcmp(para.client_id, "bench-client-0001") == 0 &&
                   strcmp(para.password, c.full ? "secret-secret" : "") == 0;
        });
}

void add_connack(uint32_t level) {
    mqtt_connack_para para{};
    para.receive_maximum = 20;
    para.maximum_packet_size = 4096;
    add_encoder<mqtt_codec_encode_connack>("connack", level, para);
    add_decoder<mqtt_codec_decode_connack, mqtt_connack_para>(
        "connack", level, hex(level == 5 ? "20 06 01 00 03 21 00 14" : "20 02 01 00"),
        [](const mqtt_connack_para &read) { return read.session_present == 1 && read.reason_code == 0; });
}

struct publish_case {
    const char *name;
    uint32_t qos;
    uint32_t payload_len;
    bool properties;  // level 5 only
};
constexpr publish_case k_publishes[] = {
    {"publish_qos0_64", 0, 64, false},      {"publish_qos1_64", 1, 64, false},
    {"publish_qos2_64", 2, 64, false},      {"publish_qos0_1900", 0, 1900, false},
    {"publish_qos1_1900", 1, 1900, false},  {"publish_qos2_1900", 2, 1900, false},
    {"publish_qos0_64_props", 0, 64, true}, {"publish_qos0_1900_props", 0, 1900, true},
    {"publish_qos1_64_props", 1, 64, true}, {"publish_qos1_1900_props", 1, 1900, true},
    {"publish_qos2_64_props", 2, 64, true}, {"publish_qos2_1900_props", 2, 1900, true},
};

void add_publish(const publish_case &c, uint32_t level) {
    if (c.properties && level != 5) return;
    mqtt_publish_para para{};
    put_text(para.topic, k_topic);
    memset(para.payload, k_payload_byte, c.payload_len);
    para.payload_len = c.payload_len;
    para.qos = c.qos;
    para.packet_id = c.qos > 0 ? k_msg_id : 0;
    para.msg_expiry_interval = c.properties ? k_expiry_s : 0;
    add_encoder<mqtt_codec_encode_publish>(c.name, level, para);

    bytes body(c.payload_len, k_payload_byte);
    if (level == 5) body = (c.properties ? hex("05 02 00 00 0E 10") : bytes{0}) + body;
    const bytes wire = zeb_test::publish_packet(k_topic, body, static_cast<int>(c.qos), k_msg_id);
    add_decoder<mqtt_codec_decode_publish, mqtt_publish_para>(
        c.name, level, wire, [c](const mqtt_publish_para &read) {
            return strcmp(read.topic, k_topic) == 0 && read.qos == c.qos &&
                   read.payload_len == c.payload_len &&
                   read.msg_expiry_interval == (c.properties ? k_expiry_s : 0);
        });
}

// PUBACK to PUBCOMP and UNSUBACK: at level 5 with a reason code.
template <int Type>
void add_id_ack(const char *name, uint32_t level) {
    mqtt_ack_para para{};
    para.msg_id = k_msg_id;
    add_encoder<encode_ack<Type>>(name, level, para);
    const auto first = static_cast<uint8_t>(Type << 4 | (Type == MQTT_PKT_PUBREL ? 2 : 0));
    const bytes wire = zeb_test::packet(first, hex(level == 5 ? "12 34 00" : "12 34"));
    add_decoder<decode_ack<Type>, mqtt_ack_para>(
        name, level, wire, [](const mqtt_ack_para &read) { return read.msg_id == k_msg_id; });
}

void add_suback(int count, uint32_t level) {
    const std::string name = "suback_" + std::to_string(count);
    mqtt_ack_para para{};
    para.msg_id = k_msg_id;
    para.reason_code_count = count;
    add_encoder<encode_ack<MQTT_PKT_SUBACK>>(name, level, para);
    // The decoder takes the first byte for the property length, at any level.
    const bytes wire = zeb_test::packet(0x90, hex("12 34 00") + bytes(static_cast<size_t>(count), 0));
    add_decoder<decode_ack<MQTT_PKT_SUBACK>, mqtt_ack_para>(
        name, level, wire, [count](const mqtt_ack_para &read) { return read.reason_code_count == count; });
}

template <typename Para>
Para filter_record(int count) {
    Para para{};
    para.msg_id = k_msg_id;
    para.filter_count = count;
    for (int i = 0; i < count; ++i) put_text(para.topic_filters[i], filter_text(i));
    return para;
}

template <typename Para>
std::function<bool(const Para &)> has_filters(int count) {
    return [count](const Para &read) {
        return read.filter_count == count && read.topic_filters[count - 1] == filter_text(count - 1);
    };
}

void add_subscribe(int count, uint32_t level) {
    const std::string suffix = "_" + std::to_string(count);
    std::vector<zeb_test::filter_request> wanted;
    zeb_test::texts unwanted;
    for (int i = 0; i < count; ++i) {
        wanted.push_back({filter_text(i), 1});
        unwanted.push_back(filter_text(i));
    }
    const int wire_level = static_cast<int>(level);
    add_encoder<mqtt_codec_encode_subscribe>("subscribe" + suffix, level,
                                             filter_record<mqtt_subscribe_para>(count));
    add_decoder<mqtt_codec_decode_subscribe, mqtt_subscribe_para>(
        "subscribe" + suffix, level, zeb_test::subscribe_packet(k_msg_id, wanted, wire_level),
        has_filters<mqtt_subscribe_para>(count));
    add_encoder<mqtt_codec_encode_unsubscribe>("unsubscribe" + suffix, level,
                                               filter_record<mqtt_unsubscribe_para>(count));
    add_decoder<mqtt_codec_decode_unsubscribe, mqtt_unsubscribe_para>(
        "unsubscribe" + suffix, level, zeb_test::unsubscribe_packet(k_msg_id, unwanted, wire_level),
        has_filters<mqtt_unsubscribe_para>(count));
}

template <int Type>
void add_simple(const char *name, uint32_t level) {
    add_encoder<encode_simple<Type>>(name, level, no_fields{});
    add_decoder<decode_simple<Type>, no_fields>(name, level, bytes{Type << 4, 0},
                                                [](const no_fields &) { return true; });
}

void add_disconnect(uint32_t level) {
    add_encoder<mqtt_codec_encode_disconnect>("disconnect", level, mqtt_disconnect_para{});
    add_decoder<mqtt_codec_decode_disconnect, mqtt_disconnect_para>(
        "disconnect", level, hex(level == 5 ? "E0 07 04 05 10 00 00 0E 10" : "E0 00"),
        [level](const mqtt_disconnect_para &read) {
            return read.session_expiry_interval == (level == 5 ? k_expiry_s : 0);
        });
}

void add_level(uint32_t level) {
    for (const connect_case &c : k_connects) add_connect(c, level);
    add_connack(level);
    for (const publish_case &c : k_publishes) add_publish(c, level);
    add_id_ack<MQTT_PKT_PUBACK>("puback", level);
    add_id_ack<MQTT_PKT_PUBREC>("pubrec", level);
    add_id_ack<MQTT_PKT_PUBREL>("pubrel", level);
    add_id_ack<MQTT_PKT_PUBCOMP>("pubcomp", level);
    add_id_ack<MQTT_PKT_UNSUBACK>("unsuback", level);
    for (const int filters : {1, 10}) {
        add_suback(filters, level);
        add_subscribe(filters, level);
    }
    add_simple<MQTT_PKT_PINGREQ>("pingreq", level);
    add_simple<MQTT_PKT_PINGRESP>("pingresp", level);
    add_disconnect(level);
}

[[maybe_unused]] const bool k_added = [] {
    for (const uint32_t level : k_levels) add_level(level);
    return true;
}();

}  // namespace

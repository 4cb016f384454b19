#pragma once

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "codec/mqtt_codec.h"
#include "tests/support/bytes.h"
#include "tests/support/log_capture.h"

namespace zeb_test {

using namespace zeb;

// A block of exactly n bytes on the heap, so that the address sanitizer sees one byte too far.
class heap_block {
  public:
    explicit heap_block(size_t n, uint8_t fill = 0)
        : size_(n), data_(static_cast<uint8_t *>(malloc(n > 0 ? n : 1))) {
        memset(data_, fill, n);
    }
    heap_block(const uint8_t *from, size_t n) : heap_block(n) {
        if (n > 0) memcpy(data_, from, n);
    }
    ~heap_block() { free(data_); }
    heap_block(const heap_block &) = delete;
    heap_block &operator=(const heap_block &) = delete;

    uint8_t *data() const { return data_; }
    size_t size() const { return size_; }

  private:
    size_t size_;
    uint8_t *data_;
};

// A packet in the notation of hex(): its first byte and its body, the remaining length worked out here.
inline std::string pkt(const std::string &first, const std::string &body) {
    size_t rest = hex(body).size();
    bytes length;
    do {
        length.push_back(static_cast<uint8_t>((rest % 128) | (rest > 127 ? 0x80 : 0)));
        rest /= 128;
    } while (rest > 0);
    return first + " " + dump(length) + " " + body;
}

// n characters c in the notation of hex().
inline std::string rep(size_t n, char c = 'a') {
    return "'" + std::string(n, c) + "'";
}

[[gnu::format(printf, 1, 2)]] inline std::string format(const char *fmt, ...) {
    char text[1024];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    return text;
}

inline void set_level(mqtt_codec_ctx *ctx, uint32_t level) {
    mqtt_codec_ctx_init(ctx);
    ctx->protocol_version = level;
}

template <typename Para>
std::unique_ptr<Para> dirty_record() {
    auto para = std::make_unique<Para>();
    memset(static_cast<void *>(para.get()), 0xA5, sizeof *para);
    return para;
}

// One line of the log that a row demands; an empty level demands that nothing is warned of or refused.
struct log_line {
    const char *level = "";
    std::string message;
};

inline void expect_line(log_capture &log, const log_line &line) {
    if (line.level[0] != '\0') {
        EXPECT_TRUE(log.has(line.level, line.message))
            << "missing: [" << line.level << "] " << line.message << "\nlogged:\n"
            << log.text();
        return;
    }
    EXPECT_EQ(log.text().find("] [WARN] "), std::string::npos) << log.text();
    EXPECT_EQ(log.text().find("] [ERROR] "), std::string::npos) << log.text();
}

template <typename Para>
struct decode_row {
    const char *behaviour;
    uint32_t level;  // of the context before
    std::string wire;
    int rc;
    log_line line;
    int consumed = 0;          // on success
    uint32_t level_after = 0;  // 0 for a refused packet: as before
    void (*check)(const Para &) = nullptr;
};

// What must hold for every decoded record, whatever the packet was.
inline bool terminated(const char *text, size_t size) {
    return memchr(text, '\0', size) != nullptr;
}
inline void expect_sound(const mqtt_connect_para &p) {
    EXPECT_TRUE(terminated(p.client_id, sizeof p.client_id));
    EXPECT_TRUE(terminated(p.will_topic, sizeof p.will_topic));
    EXPECT_TRUE(terminated(p.username, sizeof p.username));
    EXPECT_TRUE(terminated(p.password, sizeof p.password));
    EXPECT_LE(p.will_payload_len, sizeof p.will_payload);
    EXPECT_LE(p.username_len, 64u);
    EXPECT_LE(p.password_len, 64u);
}
inline void expect_sound(const mqtt_connack_para &p) {
    EXPECT_LE(p.session_present, 1);
}
inline void expect_sound(const mqtt_publish_para &p) {
    EXPECT_TRUE(terminated(p.topic, sizeof p.topic));
    EXPECT_LE(p.payload_len, sizeof p.payload);
    EXPECT_LE(p.qos, 2u);
    EXPECT_EQ(p.packet_id != 0, p.qos != 0);
}
inline void expect_sound(const mqtt_ack_para &p) {
    EXPECT_GE(p.reason_code_count, 0);
    EXPECT_LE(p.reason_code_count, 16);
}
inline void expect_sound(const mqtt_subscribe_para &p) {
    EXPECT_NE(p.msg_id, 0);
    EXPECT_GE(p.filter_count, 1);
    EXPECT_LE(p.filter_count, 16);
    for (const auto &filter : p.topic_filters) EXPECT_TRUE(terminated(filter, sizeof filter));
}
inline void expect_sound(const mqtt_unsubscribe_para &p) {
    EXPECT_NE(p.msg_id, 0);
    EXPECT_GE(p.filter_count, 0);
    EXPECT_LE(p.filter_count, 16);
    for (const auto &filter : p.topic_filters) EXPECT_TRUE(terminated(filter, sizeof filter));
}
inline void expect_sound(const mqtt_disconnect_para &p) {
    EXPECT_TRUE(terminated(p.reason_string, sizeof p.reason_string));
    EXPECT_TRUE(terminated(p.user_property, sizeof p.user_property));
    EXPECT_LE(p.user_property_len, 64);
}

// Decodes the first n bytes of a packet; they may be refused or not, but nothing may be read behind them.
template <typename Para, typename Decoder>
void decode_anything(Decoder decode, uint32_t level, const uint8_t *data, size_t n) {
    mqtt_codec_ctx ctx{};
    ctx.protocol_version = level;
    heap_block in(data, n);
    auto para = dirty_record<Para>();
    int len = static_cast<int>(n);
    const int rc = decode(&ctx, in.data(), &len, para.get());
    ASSERT_TRUE(rc <= MQTT_CODEC_OK && rc >= MQTT_CODEC_ERR_UNSUPPORTED) << rc;
    if (rc != MQTT_CODEC_OK) {
        EXPECT_EQ(len, static_cast<int>(n));
        EXPECT_EQ(ctx.last_packet_len, 0u);
        return;
    }
    EXPECT_GE(len, 2);
    EXPECT_LE(len, static_cast<int>(n));
    EXPECT_EQ(ctx.last_packet_len, static_cast<uint32_t>(len));
    EXPECT_TRUE(ctx.protocol_version == 4 || ctx.protocol_version == 5 || ctx.protocol_version == level);
    expect_sound(*para);
}

// Two decoders note their type before they have seen the whole packet; a refusal by another leaves no trace.
inline uint32_t type_after_refusal(uint32_t type, const bytes &wire) {
    const bool early =
        type == MQTT_PKT_DISCONNECT || (type == MQTT_PKT_UNSUBSCRIBE && !wire.empty() && wire[0] == 0xA2);
    return early ? type : 0;
}

template <typename Para, typename Decoder>
void run_decode_row(Decoder decode, const decode_row<Para> &row, uint32_t type) {
    const bytes wire = hex(row.wire);
    SCOPED_TRACE(std::string(row.behaviour) + "\n" + dump(wire.data(), wire.size() > 64 ? 64 : wire.size()));
    mqtt_codec_ctx ctx{};
    set_level(&ctx, row.level);
    heap_block in(wire.data(), wire.size());
    auto para = dirty_record<Para>();
    int len = static_cast<int>(wire.size());
    {
        log_capture log;
        EXPECT_EQ(decode(&ctx, in.data(), &len, para.get()), row.rc);
        expect_line(log, row.line);
    }
    if (row.rc != MQTT_CODEC_OK) {
        EXPECT_EQ(len, static_cast<int>(wire.size())) << "the length of a refused packet was touched";
        EXPECT_EQ(ctx.last_packet_len, 0u);
        EXPECT_EQ(ctx.last_packet_type, type_after_refusal(type, wire));
        EXPECT_EQ(ctx.protocol_version, row.level_after != 0 ? row.level_after : row.level);
        return;
    }
    EXPECT_EQ(len, row.consumed);
    EXPECT_EQ(ctx.last_packet_len, static_cast<uint32_t>(row.consumed));
    EXPECT_EQ(ctx.last_packet_type, type);
    EXPECT_EQ(ctx.protocol_version, row.level_after);
    expect_sound(*para);
    if (row.check != nullptr) row.check(*para);
    for (size_t n = 0; n < wire.size(); ++n) {
        SCOPED_TRACE(n);
        decode_anything<Para>(decode, row.level, wire.data(), n);
    }
}

template <typename Para>
struct encode_row {
    const char *behaviour;
    uint32_t level;
    void (*fill)(Para &);
    int rc;
    std::string wire;  // on success
    log_line line;
    int capacity = 4096;
};

// The result must not depend on whether anybody listens to the log.
template <typename Para, typename Encoder>
void expect_same_in_silence(Encoder encode, const encode_row<Para> &row) {
    mqtt_codec_ctx ctx{};
    set_level(&ctx, row.level);
    auto para = std::make_unique<Para>();
    memset(static_cast<void *>(para.get()), 0, sizeof *para);
    row.fill(*para);
    heap_block out(static_cast<size_t>(row.capacity));
    int len = row.capacity;
    const uint32_t before = zeb::g_log_config.level;
    zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL);
    EXPECT_EQ(encode(&ctx, para.get(), out.data(), &len), row.rc);
    zeb::agent_log_set_level(before);
    if (row.rc != MQTT_CODEC_OK) return;
    EXPECT_EQ(dump(out.data(), static_cast<size_t>(len)), dump(hex(row.wire)));
}

template <typename Para, typename Encoder>
void run_encode_row(Encoder encode, const encode_row<Para> &row, uint32_t type) {
    SCOPED_TRACE(row.behaviour);
    expect_same_in_silence(encode, row);
    constexpr uint8_t k_untouched = 0xEE;
    mqtt_codec_ctx ctx{};
    set_level(&ctx, row.level);
    auto para = std::make_unique<Para>();
    memset(static_cast<void *>(para.get()), 0, sizeof *para);
    row.fill(*para);
    heap_block out(static_cast<size_t>(row.capacity), k_untouched);
    int len = row.capacity;
    {
        log_capture log;
        EXPECT_EQ(encode(&ctx, para.get(), out.data(), &len), row.rc);
        expect_line(log, row.line);
    }
    EXPECT_EQ(ctx.protocol_version, row.level);
    EXPECT_EQ(ctx.last_packet_len, 0u);
    EXPECT_EQ(ctx.last_packet_type, row.rc == MQTT_CODEC_OK ? type : 0u);
    int written = 0;
    if (row.rc == MQTT_CODEC_OK) {
        ASSERT_LE(len, row.capacity);
        EXPECT_EQ(dump(out.data(), static_cast<size_t>(len)), dump(hex(row.wire)));
        written = len;
    } else {
        EXPECT_EQ(len, row.capacity) << "the length of a refused record was touched";
    }
    for (int i = written; i < row.capacity; ++i)
        ASSERT_EQ(out.data()[i], k_untouched) << "byte " << i << " behind the packet was written";
}

// A refused packet leaves nothing in the record of what was there before.
template <typename Para, typename Decoder>
void expect_cleared(Decoder decode, const std::string &wire_hex) {
    const bytes wire = hex(wire_hex);
    SCOPED_TRACE(dump(wire));
    mqtt_codec_ctx ctx{};
    set_level(&ctx, 4);
    auto para = dirty_record<Para>();
    int len = static_cast<int>(wire.size());
    EXPECT_LT(decode(&ctx, wire.data(), &len, para.get()), 0);
    const heap_block zeroes(sizeof(Para));
    EXPECT_EQ(memcmp(para.get(), zeroes.data(), sizeof(Para)), 0);
}

// encode(decode(x)) must give x back.
template <typename Para, typename Decoder, typename Encoder>
void expect_round_trip(Decoder decode, Encoder encode, uint32_t level, const std::string &wire_hex) {
    const bytes wire = hex(wire_hex);
    SCOPED_TRACE(dump(wire));
    mqtt_codec_ctx ctx{};
    set_level(&ctx, level);
    heap_block in(wire.data(), wire.size());
    auto para = dirty_record<Para>();
    int len = static_cast<int>(wire.size());
    ASSERT_EQ(decode(&ctx, in.data(), &len, para.get()), MQTT_CODEC_OK);
    ASSERT_EQ(ctx.protocol_version, level);
    heap_block out(4096);
    int out_len = 4096;
    ASSERT_EQ(encode(&ctx, para.get(), out.data(), &out_len), MQTT_CODEC_OK);
    EXPECT_EQ(dump(out.data(), static_cast<size_t>(out_len)), dump(wire));
}

// Every test starts with a silent log; log_capture turns it on where lines matter.
class quiet_codec_test : public testing::Test {
  protected:
    void SetUp() override { agent_log_set_level(AGENT_LOG_FATAL); }
};

}  // namespace zeb_test

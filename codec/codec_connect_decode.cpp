#include <cstring>

#include "codec/codec_connect.h"
#include "codec/codec_frame.h"

namespace zeb {

namespace {

constexpr int k_min_packet_bytes = 10;
constexpr int k_min_name_bytes = 4;

struct connect_property {
    uint8_t id;
    int size;
    const char *incomplete;
    void (*store)(mqtt_connect_para *para, uint32_t value);
};

// The encoder writes the session expiry interval and the packet size under other identifiers; kept.
constexpr connect_property k_properties[] = {
    {0x11, 4, "CONNECT decode: incomplete Session Expiry Interval",
     [](mqtt_connect_para *para, uint32_t v) { para->session_expiry_interval = v; }},
    {k_connect_prop_request_response, 1, "CONNECT decode: incomplete Request Response Info",
     [](mqtt_connect_para *para, uint32_t v) { para->request_response_info = static_cast<uint8_t>(v); }},
    {k_connect_prop_request_problem, 1, "CONNECT decode: incomplete Request Problem Info",
     [](mqtt_connect_para *para, uint32_t v) { para->request_problem_info = static_cast<uint8_t>(v); }},
    {k_connect_prop_receive_maximum, 2, "CONNECT decode: incomplete Receive Maximum",
     [](mqtt_connect_para *para, uint32_t v) { para->receive_maximum = static_cast<uint16_t>(v); }},
    {k_connect_prop_topic_alias_maximum, 2, "CONNECT decode: incomplete Topic Alias Maximum",
     [](mqtt_connect_para *para, uint32_t v) { para->topic_alias_maximum = static_cast<uint16_t>(v); }},
    {0x27, 4, "CONNECT decode: incomplete Max Packet Size",
     [](mqtt_connect_para *para, uint32_t v) { para->maximum_packet_size = v; }},
};

const connect_property *find_property(unsigned id) noexcept {
    for (const connect_property &row : k_properties)
        if (row.id == id) return &row;
    return nullptr;
}

// Fixed header; narrows the reader to the packet, or to what has arrived of it.
int read_header(byte_reader *r) noexcept {
    const int len = r->end;
    const fixed_header h = read_fixed_header(r);
    if (h.first != k_connect_first_byte) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: invalid pkt type/flags (type=%d, flags=%d)", h.type(),
                h.flags());
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (h.remaining < 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: invalid remaining length (len=%d, consumed=%d)",
                h.remaining, h.used);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (h.total() > len) {
        ZEB_LOG(AGENT_LOG_WARN, "CONNECT decode: pkt len mismatch (expected=%d, actual=%d), truncate",
                h.total(), len);
    }
    *r = r->block(h.remaining);
    return MQTT_CODEC_OK;
}

int read_protocol(byte_reader *r, mqtt_codec_ctx *ctx, uint8_t *level) noexcept {
    uint16_t name_len = 0;
    if (r->left() < k_min_name_bytes || !r->be16(&name_len)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: no enough data for protocol name (pos=%d, len=%d)", r->pos,
                r->end);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    const byte_reader name = r->block(name_len);
    const uint8_t *text = nullptr;
    if (name_len != k_connect_protocol_name_len || !r->bytes(name_len, &text) ||
        memcmp(text, k_connect_protocol_name, k_connect_protocol_name_len) != 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: invalid protocol name (len=%d, name=%.*s)", name_len,
                name.left(), reinterpret_cast<const char *>(name.buf + name.pos));
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (!r->u8(level)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: no enough data for protocol version (pos=%d)", r->pos);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (!is_known_level(*level)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: unsupported version %d (only 4/5 allowed)", *level);
        return MQTT_CODEC_ERR_VERSION;
    }
    if (codec_level_is_fixed(ctx) && *level != codec_level(ctx)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: level %d on a connection of level %u", *level,
                codec_level(ctx));
        return MQTT_CODEC_ERR_VERSION;
    }
    codec_set_level(ctx, *level);
    return MQTT_CODEC_OK;
}

int read_flags_and_keep_alive(byte_reader *r, mqtt_connect_para *para) noexcept {
    uint8_t flags = 0;
    if (!r->u8(&flags)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: no enough data for connect flags (pos=%d)", r->pos);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    para->clean_start = (flags & k_connect_clean_start) != 0;
    para->will_flag = (flags & k_connect_will) != 0;
    para->will_qos = (flags >> k_connect_will_qos_shift) & k_connect_will_qos_mask;
    para->will_retain = (flags & k_connect_will_retain) != 0;
    para->password_flag = (flags & k_connect_password) != 0;
    para->username_flag = (flags & k_connect_username) != 0;
    if (para->will_flag && para->will_qos > 2) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: invalid Will QoS %d", static_cast<int>(para->will_qos));
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (!r->be16(&para->keep_alive)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: no enough data for keep alive (pos=%d)", r->pos);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    return MQTT_CODEC_OK;
}

// The identifier of a property: two bytes when bit 7 of the first is set.
bool read_property_id(byte_reader *block, unsigned *id) noexcept {
    uint8_t byte = 0;
    if (!block->u8(&byte)) return false;
    *id = byte;
    if ((byte & 0x80) == 0) return true;
    const unsigned high = byte & 0x7Fu;
    if (!block->u8(&byte)) return false;
    *id = high << 8 | byte;
    return true;
}

int read_properties(byte_reader *r, mqtt_connect_para *para) noexcept {
    int32_t property_len = -1;
    if (!r->varint(&property_len)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: invalid MQTT 5.0 property length (len=%d, consumed=%d)",
                property_len, 0);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    byte_reader block = r->block(property_len);
    r->skip(property_len);
    while (block.left() > 0) {
        unsigned id = 0;
        if (!read_property_id(&block, &id)) {
            ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: incomplete extended property type (pos=%d)", block.pos);
            return MQTT_CODEC_ERR_MALFORMED;
        }
        const connect_property *property = find_property(id);
        if (property == nullptr) {
            // Its size is unknown, so nothing behind it in the block can be found.
            ZEB_LOG(AGENT_LOG_WARN, "CONNECT decode: unknown property type=0x%02X, skip", id);
            return MQTT_CODEC_OK;
        }
        uint32_t value = 0;
        if (!block.number(property->size, &value)) {
            ZEB_LOG(AGENT_LOG_ERROR, "%s (pos=%d)", property->incomplete, block.pos);
            return MQTT_CODEC_ERR_MALFORMED;
        }
        property->store(para, value);
    }
    return MQTT_CODEC_OK;
}

int read_client_id(byte_reader *r, uint8_t level, mqtt_connect_para *para) noexcept {
    const int start = r->pos;
    uint16_t len = 0;
    if (!r->be16(&len)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: no enough data for ClientID length (pos=%d)", start);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (len == 0) {
        if (para->clean_start == 0) {
            ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: client_id_len=0 (empty ClientID)");
            ZEB_LOG(AGENT_LOG_ERROR,
                    "CONNECT decode: clean_start=0 - empty ClientID is NOT allowed (MQTT standard)");
            return MQTT_CODEC_ERR_MALFORMED;
        }
        ZEB_LOG(AGENT_LOG_WARN, "CONNECT decode: empty ClientID (clean_start=1, MQTT standard allowed)");
        return MQTT_CODEC_OK;
    }
    if (len > r->left()) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: ClientID data out of bounds (pos=%d, len=%d, total=%d)",
                start, len, r->end);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (level == 4 && len > k_client_id_max_v4) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: MQTT 3.1.1 ClientID too long (len=%d, max=23)", len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    int stored = len;
    if (stored > k_client_id_max) {
        // Kept: only the stored part is stepped over; what is behind it is read as the next field.
        ZEB_LOG(AGENT_LOG_WARN, "CONNECT decode: ClientID exceed buffer (len=%d, max=%d), truncate", len,
                k_client_id_max);
        stored = k_client_id_max;
    }
    (void)r->text(stored, para->client_id);  // its bounds were checked above
    return MQTT_CODEC_OK;
}

// Lenient where the CONNECT properties are strict: nothing in here refuses the packet.
void read_will_properties(byte_reader *r, mqtt_connect_para *para) noexcept {
    int32_t property_len = 0;
    if (!r->varint(&property_len)) return;
    byte_reader block = r->block(property_len);
    r->skip(property_len);
    uint8_t id = 0;
    while (block.u8(&id)) {
        if (id == k_will_prop_delay) {
            if (!block.be32(&para->will_delay_interval)) return;
        } else if (id == k_will_prop_message_expiry) {
            if (!block.be32(&para->will_msg_expiry_interval)) return;
        } else {
            ZEB_LOG(AGENT_LOG_WARN, "CONNECT decode: unknown will prop type=0x%02X", id);
            return;
        }
    }
}

int read_will(byte_reader *r, uint8_t level, mqtt_connect_para *para) noexcept {
    if (level == 5) read_will_properties(r, para);
    uint16_t len = 0;
    if (!r->be16(&len)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: no enough data for Will Topic length (pos=%d)", r->pos);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (len == 0 || !r->text(len, para->will_topic)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: invalid Will Topic length %d", len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (!r->be16(&len)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: no enough data for Will Payload length (pos=%d)", r->pos);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    const uint8_t *payload = nullptr;
    if (len > sizeof para->will_payload || !r->bytes(len, &payload)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: invalid Will Payload length %d", len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    memcpy(para->will_payload, payload, len);
    para->will_payload_len = len;
    return MQTT_CODEC_OK;
}

struct credential_texts {
    const char *no_length;
    const char *bad_length;
};
constexpr credential_texts k_username_texts = {"CONNECT decode: no enough data for Username length",
                                               "CONNECT decode: invalid Username length"};
constexpr credential_texts k_password_texts = {"CONNECT decode: no enough data for Password length",
                                               "CONNECT decode: invalid Password length"};

int read_credential(byte_reader *r, const credential_texts &texts, char (&out)[k_credential_max + 1],
                    uint32_t *out_len) noexcept {
    uint16_t len = 0;
    if (!r->be16(&len)) {
        ZEB_LOG(AGENT_LOG_ERROR, "%s (pos=%d)", texts.no_length, r->pos);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (len == 0 || !r->text(len, out)) {
        ZEB_LOG(AGENT_LOG_ERROR, "%s %d", texts.bad_length, len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    *out_len = len;
    return MQTT_CODEC_OK;
}

// Everything behind the fixed header, in wire order.
int read_body(byte_reader *r, mqtt_codec_ctx *ctx, mqtt_connect_para *para) noexcept {
    uint8_t level = 0;
    int rc = read_protocol(r, ctx, &level);
    if (rc == MQTT_CODEC_OK) rc = read_flags_and_keep_alive(r, para);
    if (rc == MQTT_CODEC_OK && level == 5) rc = read_properties(r, para);
    if (rc == MQTT_CODEC_OK) rc = read_client_id(r, level, para);
    if (rc == MQTT_CODEC_OK && para->will_flag) rc = read_will(r, level, para);
    if (rc == MQTT_CODEC_OK && para->username_flag)
        rc = read_credential(r, k_username_texts, para->username, &para->username_len);
    if (rc == MQTT_CODEC_OK && para->password_flag)
        rc = read_credential(r, k_password_texts, para->password, &para->password_len);
    return rc;
}

}  // namespace

int mqtt_codec_decode_connect(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len,
                              mqtt_connect_para *para) {
    const int len = length_or_zero(buf_len);
    if (ctx == nullptr || buf == nullptr || para == nullptr || len < k_min_packet_bytes) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode: invalid input (ctx=%p, buf=%p, len=%d < 10)", addr(ctx),
                addr(buf), len);
        return MQTT_CODEC_ERR_PARAM;
    }
    memset(para, 0, sizeof *para);
    byte_reader r{buf, 0, len};
    int rc = read_header(&r);
    if (rc == MQTT_CODEC_OK) rc = read_body(&r, ctx, para);
    if (rc != MQTT_CODEC_OK) return rc;
    ZEB_LOG(AGENT_LOG_DEBUG,
            "CONNECT decode: success (client_id=%s, clean_start=%d, keep_alive=%d, will=%d, username=%d, "
            "password=%d, consumed=%d)",
            para->client_id, para->clean_start, para->keep_alive, para->will_flag, para->username_flag,
            para->password_flag, r.pos);
    return finish_decode(ctx, MQTT_PKT_CONNECT, r.pos, buf_len);
}

}  // namespace zeb

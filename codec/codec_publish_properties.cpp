// MQTT 5.0 section 3.3.2.3, for connections whose level no packet's shape changes.
#include "codec/codec_publish_properties.h"

#include "log/agent_log.h"

namespace zeb {

namespace {

enum class kind : uint8_t { none, u8, u16, u32, varint, text, text_pair };

constexpr uint8_t k_prop_message_expiry = 0x02;
constexpr uint8_t k_prop_topic_alias = 0x23;

struct property {
    uint8_t id;
    kind value;
};

constexpr property k_properties[] = {
    {0x01, kind::u8},                    // Payload Format Indicator
    {k_prop_message_expiry, kind::u32},  // Message Expiry Interval
    {0x03, kind::text},                  // Content Type
    {0x08, kind::text},                  // Response Topic
    {0x09, kind::text},                  // Correlation Data
    {0x0B, kind::varint},                // Subscription Identifier
    {k_prop_topic_alias, kind::u16},     // Topic Alias
    {0x26, kind::text_pair},             // User Property
};

kind kind_of(uint8_t id) noexcept {
    for (const property &row : k_properties)
        if (row.id == id) return row.value;
    return kind::none;
}

bool skip_texts(byte_reader *r, int count) noexcept {
    for (int i = 0; i < count; ++i) {
        uint16_t len = 0;
        const uint8_t *text = nullptr;
        if (!r->be16(&len) || !r->bytes(len, &text)) return false;
    }
    return true;
}

// `number` receives the value of a property that is one.
bool read_value(byte_reader *r, kind value, uint32_t *number) noexcept {
    int32_t ignored = 0;
    switch (value) {
        case kind::u8:
            return r->number(1, number);
        case kind::u16:
            return r->number(2, number);
        case kind::u32:
            return r->number(4, number);
        case kind::varint:
            return r->varint(&ignored);
        case kind::text:
            return skip_texts(r, 1);
        case kind::text_pair:
            return skip_texts(r, 2);
        case kind::none:
            break;
    }
    return false;
}

}  // namespace

int codec_read_publish_properties(byte_reader *r, int packet_end, mqtt_publish_para *para) noexcept {
    byte_reader rest = r->block(packet_end - r->pos);
    int32_t len = -1;
    if (!rest.varint(&len) || len > rest.left()) {
        ZEB_LOG(AGENT_LOG_ERROR, "PUBLISH decode: invalid property length=%d", len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    byte_reader block = rest.block(len);
    uint8_t id = 0;
    while (block.u8(&id)) {
        uint32_t number = 0;
        if (!read_value(&block, kind_of(id), &number)) {
            ZEB_LOG(AGENT_LOG_ERROR, "PUBLISH decode: invalid property 0x%02X, pos=%d", id, block.pos);
            return MQTT_CODEC_ERR_MALFORMED;
        }
        if (id == k_prop_message_expiry) para->msg_expiry_interval = number;
        if (id == k_prop_topic_alias) para->topic_alias = static_cast<uint16_t>(number);
    }
    r->pos = block.end;
    return MQTT_CODEC_OK;
}

}  // namespace zeb

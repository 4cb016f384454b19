#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/bytes.h"

// Packets as clients write them.
namespace zeb_test {

using texts = std::vector<std::string>;

inline bytes operator+(bytes a, const bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline bytes be16(unsigned value) {
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}
inline bytes be32(uint32_t value) {
    return be16(value >> 16) + be16(value & 0xFFFF);
}
inline bytes raw(std::string_view text) {
    return bytes(text.begin(), text.end());
}
inline bytes text16(std::string_view text) {
    return be16(static_cast<unsigned>(text.size())) + raw(text);
}
inline bytes varint(size_t value) {
    bytes out;
    do {
        out.push_back(static_cast<uint8_t>(value % 128 + (value >= 128 ? 128 : 0)));
        value /= 128;
    } while (value > 0);
    return out;
}
inline bytes packet(uint8_t first, const bytes &body) {
    return bytes{first} + varint(body.size()) + body;
}

struct connect_options {
    uint8_t level = 4;
    bool clean = true;
    uint16_t keep_alive = 60;
    bytes properties;  // level 5
    std::string user;  // empty: none
    std::string password;
    bool will = false;
    std::string will_topic = "will/t";
    std::string will_payload = "gone";
    uint8_t will_qos = 0;
    bool will_retain = false;
    bytes will_properties;  // level 5
};

inline bytes connect_packet(std::string_view id, const connect_options &o = {}) {
    int flags = o.clean ? 0x02 : 0;
    if (o.will) flags |= 0x04 | o.will_qos << 3 | (o.will_retain ? 0x20 : 0);
    if (!o.user.empty()) flags |= 0x80;
    if (!o.password.empty()) flags |= 0x40;
    bytes body = text16("MQTT") + bytes{o.level, static_cast<uint8_t>(flags)} + be16(o.keep_alive);
    if (o.level == 5) body = body + varint(o.properties.size()) + o.properties;
    body = body + text16(id);
    if (o.will) {
        if (o.level == 5) body = body + varint(o.will_properties.size()) + o.will_properties;
        body = body + text16(o.will_topic) + text16(o.will_payload);
    }
    if (!o.user.empty()) body = body + text16(o.user);
    if (!o.password.empty()) body = body + text16(o.password);
    return packet(0x10, body);
}

// Without properties, as a level 4 client writes it; the payload must not read as a property block.
inline bytes publish_packet(std::string_view topic, const bytes &payload, int qos = 0, uint16_t id = 0,
                            int flags = 0) {
    bytes body = text16(topic);
    if (qos > 0) body = body + be16(id);
    return packet(static_cast<uint8_t>(0x30 | qos << 1 | flags), body + payload);
}
inline bytes publish_packet(std::string_view topic, const char *payload, int qos = 0, uint16_t id = 0,
                            int flags = 0) {
    return publish_packet(topic, raw(payload), qos, id, flags);
}
inline bytes publish5_packet(std::string_view topic, const bytes &properties, const bytes &payload,
                             int qos = 0, uint16_t id = 0) {
    return publish_packet(topic, varint(properties.size()) + properties + payload, qos, id);
}

struct filter_request {
    std::string filter;
    int qos;
};
inline bytes subscribe_packet(uint16_t id, const std::vector<filter_request> &filters, int level = 4) {
    bytes body = be16(id);
    if (level == 5) body.push_back(0);
    for (const filter_request &f : filters)
        body = body + text16(f.filter) + bytes{static_cast<uint8_t>(f.qos)};
    return packet(0x82, body);
}
inline bytes unsubscribe_packet(uint16_t id, const texts &filters, int level = 4) {
    bytes body = be16(id);
    if (level == 5) body.push_back(0);
    for (const std::string &f : filters) body = body + text16(f);
    return packet(0xA2, body);
}

}  // namespace zeb_test

// MQTT 3.1.1 on the wire, as far as a load program speaks it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace zeb_load {

enum packet_type : uint8_t {
    k_connack = 2,
    k_publish = 3,
    k_puback = 4,
    k_pubrec = 5,
    k_pubrel = 6,
    k_pubcomp = 7,
    k_suback = 9
};

constexpr size_t k_ack_bytes = 4;
constexpr size_t k_max_packet_overhead = 512;  // fixed header, topic and identifier of a PUBLISH
constexpr size_t k_subscribe_filters = 16;     // brokers with fixed tables ignore what goes beyond
constexpr size_t k_subscribe_bytes = 2000;

// One packet inside a receive buffer.
struct packet {
    uint8_t first;
    const uint8_t *body;
    size_t size;

    uint8_t type() const { return first >> 4; }
    uint8_t qos() const { return (first >> 1) & 3; }
    bool dup() const { return (first & 8) != 0; }
};

inline uint16_t be16(const uint8_t *from) {
    return static_cast<uint16_t>(from[0] << 8 | from[1]);
}

inline void put_be16(uint8_t *to, uint16_t value) {
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

// Cut the packet at `at`: moves `at` behind it and returns 1; 0 while it is incomplete, -1 when it is
// malformed.
inline int next_packet(const uint8_t *&at, const uint8_t *end, packet &out) {
    const uint8_t *p = at;
    if (end - p < 2) return 0;
    out.first = *p++;
    size_t size = 0;
    unsigned shift = 0;
    for (;;) {
        if (p == end) return 0;
        const uint8_t byte = *p++;
        size |= static_cast<size_t>(byte & 0x7F) << shift;
        if (byte < 0x80) break;
        shift += 7;
        if (shift > 21) return -1;
    }
    if (static_cast<size_t>(end - p) < size) return 0;
    out.body = p;
    out.size = size;
    at = p + size;
    return 1;
}

// What every message begins with. No first bytes of 0xFF read as a length, so a broker that guesses the
// protocol level from a PUBLISH takes all of it for payload.
struct stamp {
    static constexpr size_t k_bytes = 24;
    static constexpr uint32_t k_mark = 0xFFFFFFFF;

    uint32_t mark = k_mark;
    uint16_t publisher = 0;
    uint16_t run = 0;  // so that a straggler of an earlier run does not count for this one
    uint64_t number = 0;
    uint64_t due_ns = 0;

    void write(uint8_t *to) const { memcpy(to, this, k_bytes); }
    void read(const uint8_t *from) { memcpy(this, from, k_bytes); }
};
static_assert(sizeof(stamp) == stamp::k_bytes);

// A PUBLISH up to its payload, to be copied and patched.
struct publish_head {
    std::vector<uint8_t> bytes;
    size_t id_at = 0;  // 0 at QoS 0
};

std::string connect_packet(std::string_view client_id, uint16_t keepalive_s);

// Appends filters from `first` on, as many as one packet takes, and returns the index of the next one.
size_t subscribe_packet(const std::vector<std::string> &filters, size_t first, uint8_t qos, std::string &out);

publish_head make_publish_head(std::string_view topic, uint8_t qos, size_t payload_bytes);

}  // namespace zeb_load

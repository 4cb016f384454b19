#pragma once

#include <string>
#include <vector>

#include "tests/netip/netip_fixture.h"
#include "tests/support/bytes.h"

namespace zeb_test {

inline void put_text(bytes *out, const std::string &text) {
    out->push_back(static_cast<uint8_t>(text.size() >> 8));
    out->push_back(static_cast<uint8_t>(text.size()));
    out->insert(out->end(), text.begin(), text.end());
}

// First byte, remaining length, body.
inline bytes mqtt_packet(uint8_t first, const bytes &body) {
    bytes out{first};
    size_t left = body.size();
    do {
        out.push_back(static_cast<uint8_t>(left % 128 + (left >= 128 ? 128 : 0)));
        left /= 128;
    } while (left > 0);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

struct connect_options {
    uint8_t level = 4;
    bool clean = true;
    uint16_t keepalive_s = 60;
    std::string will_topic;            // empty: no will
    bytes will_properties;             // level 5
    std::string will_payload = "bye";  // begins above 0x7F wherever it matters
    bytes properties;                  // level 5
};

inline bytes connect_packet(const std::string &id, const connect_options &options = {}) {
    bytes body;
    put_text(&body, "MQTT");
    body.push_back(options.level);
    body.push_back(static_cast<uint8_t>((options.clean ? 2 : 0) | (options.will_topic.empty() ? 0 : 4)));
    body.push_back(static_cast<uint8_t>(options.keepalive_s >> 8));
    body.push_back(static_cast<uint8_t>(options.keepalive_s));
    const auto put_properties = [&](const bytes &properties) {
        if (options.level != 5) return;
        body.push_back(static_cast<uint8_t>(properties.size()));
        body.insert(body.end(), properties.begin(), properties.end());
    };
    put_properties(options.properties);
    put_text(&body, id);
    if (!options.will_topic.empty()) {
        put_properties(options.will_properties);
        put_text(&body, options.will_topic);
        put_text(&body, options.will_payload);
    }
    return mqtt_packet(0x10, body);
}

inline bytes subscribe_packet(uint16_t id, const std::string &filter, uint8_t qos = 0) {
    bytes body{static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)};
    put_text(&body, filter);
    body.push_back(qos);
    return mqtt_packet(0x82, body);
}

// At level 4.
inline bytes publish_packet(const std::string &topic, const bytes &payload, uint8_t qos = 0,
                            uint16_t id = 0) {
    bytes body;
    put_text(&body, topic);
    if (qos != 0) {
        body.push_back(static_cast<uint8_t>(id >> 8));
        body.push_back(static_cast<uint8_t>(id));
    }
    body.insert(body.end(), payload.begin(), payload.end());
    return mqtt_packet(static_cast<uint8_t>(0x30 | qos << 1), body);
}

// A client of a running broker that sends and reads whole packets.
class mqtt_peer {
  public:
    mqtt_peer() = default;
    // Connects at once and takes the CONNACK.
    explicit mqtt_peer(const std::string &id, const connect_options &options = {}) {
        tcp_.send(connect_packet(id, options));
        const bytes answer = read();
        EXPECT_GE(answer.size(), 4u) << "no CONNACK for " << id;
        if (answer.size() < 4) return;
        EXPECT_EQ(answer[0], 0x20) << dump(answer);
        EXPECT_EQ(answer[3], 0) << dump(answer);
    }

    bool send(const bytes &data) { return tcp_.send(data); }
    bool send(std::string_view text) { return tcp_.send(text); }
    void subscribe(const std::string &filter, uint8_t qos = 0) {
        send(subscribe_packet(7, filter, qos));
        EXPECT_EQ(dump(read()), dump({0x90, 0x03, 0x00, 0x07, qos}));
    }
    // One whole packet; empty when the broker closed or the deadline passed.
    bytes read() {
        bytes packet = tcp_.read(2);
        if (packet.size() < 2) return {};
        size_t left = packet[1] & 0x7F;
        for (int shift = 7; (packet.back() & 0x80) != 0; shift += 7) {
            const bytes next = tcp_.read(1);
            if (next.empty()) return {};
            packet.push_back(next[0]);
            left |= static_cast<size_t>(next[0] & 0x7F) << shift;
        }
        const bytes body = tcp_.read(left);
        if (body.size() != left) return {};
        packet.insert(packet.end(), body.begin(), body.end());
        return packet;
    }
    // Proof that the broker has handled everything sent before, and still serves this client.
    bool is_served() { return send("C0 00") && dump(read()) == "D0 00"; }
    bool at_end() { return tcp_.at_end(); }
    bool closed_somehow() { return tcp_.closed_somehow(); }
    void close() { tcp_.close(); }
    void reset() { tcp_.reset(); }
    uint16_t port() const { return tcp_.port(); }
    tcp_client &tcp() { return tcp_; }

  private:
    tcp_client tcp_;
};

}  // namespace zeb_test

#include "packets.h"

namespace zeb_load {

namespace {

constexpr uint8_t k_connect_byte = 0x10;
constexpr uint8_t k_subscribe_byte = 0x82;
constexpr uint8_t k_level = 4;
constexpr uint8_t k_clean_session = 2;

void append_be16(std::string &out, size_t value) {
    out += static_cast<char>(value >> 8 & 0xFF);
    out += static_cast<char>(value & 0xFF);
}

void append_text(std::string &out, std::string_view text) {
    append_be16(out, text.size());
    out += text;
}

std::string header(uint8_t first, size_t left) {
    std::string out(1, static_cast<char>(first));
    do {
        out += static_cast<char>((left & 0x7F) | (left > 0x7F ? 0x80 : 0));
        left >>= 7;
    } while (left > 0);
    return out;
}

}  // namespace

std::string connect_packet(std::string_view client_id, uint16_t keepalive_s) {
    std::string body;
    append_text(body, "MQTT");
    body += static_cast<char>(k_level);
    body += static_cast<char>(k_clean_session);
    append_be16(body, keepalive_s);
    append_text(body, client_id);
    return header(k_connect_byte, body.size()) + body;
}

size_t subscribe_packet(const std::vector<std::string> &filters, size_t first, uint8_t qos,
                        std::string &out) {
    std::string body;
    append_be16(body, first + 1);
    size_t i = first;
    for (; i < filters.size() && i - first < k_subscribe_filters; ++i) {
        if (i > first && body.size() + filters[i].size() + 3 > k_subscribe_bytes) break;
        append_text(body, filters[i]);
        body += static_cast<char>(qos);
    }
    out += header(k_subscribe_byte, body.size()) + body;
    return i;
}

publish_head make_publish_head(std::string_view topic, uint8_t qos, size_t payload_bytes) {
    std::string body;
    append_text(body, topic);
    if (qos > 0) append_be16(body, 0);
    const std::string whole =
        header(static_cast<uint8_t>(k_publish << 4 | qos << 1), body.size() + payload_bytes) + body;

    publish_head out;
    out.bytes.assign(whole.begin(), whole.end());
    if (qos > 0) out.id_at = whole.size() - 2;
    return out;
}

}  // namespace zeb_load

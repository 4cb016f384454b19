#include "persist/persist_parse.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace zeb {

namespace {

constexpr std::string_view k_expiry_interval = "\"session_expiry_interval\":";
constexpr std::string_view k_expiry_deadline = "\"session_expiry_deadline\":";
constexpr std::string_view k_clean_start = "\"clean_start\":";
constexpr std::string_view k_will_flag = "\"will_flag\":";
constexpr std::string_view k_will_topic = "\"will_topic\":\"";
constexpr std::string_view k_will_qos = "\"will_qos\":";
constexpr std::string_view k_will_len = "\"will_len\":";
constexpr std::string_view k_will_payload = "\"will_payload\":\"";
constexpr std::string_view k_will_delay = "\"will_delay_interval\":";
constexpr std::string_view k_will_expiry = "\"will_msg_expiry_interval\":";
constexpr std::string_view k_will_format = "\"will_payload_format\":";
constexpr std::string_view k_will_content = "\"will_content_type\":\"";
constexpr std::string_view k_will_response = "\"will_response_topic\":\"";
constexpr std::string_view k_will_correlation = "\"will_correlation_len\":";

constexpr std::string_view k_session_keys[] = {
    k_expiry_interval, k_expiry_deadline, k_clean_start,   k_will_flag,       k_will_topic,
    k_will_qos,        k_will_len,        k_will_payload,  k_will_delay,      k_will_expiry,
    k_will_format,     k_will_content,    k_will_response, k_will_correlation};

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// The digits at the start, 0 without any. A number beyond the field becomes its largest value.
template <typename number>
number decimal(std::string_view text) {
    constexpr number top = std::numeric_limits<number>::max();
    number value = 0;
    for (; !text.empty() && is_digit(text[0]); text.remove_prefix(1)) {
        const auto digit = static_cast<number>(text[0] - '0');
        if (value > (top - digit) / 10) return top;
        value = static_cast<number>(value * 10 + digit);
    }
    return value;
}

template <typename number>
void read_number(std::string_view text, std::string_view key, number *out) {
    if (persist_skip_past(&text, key) && !text.empty() && is_digit(text[0])) *out = decimal<number>(text);
}

// Kept: "true" counts wherever it stands behind the key, in another key's value as well.
void read_flag(std::string_view text, std::string_view key, uint8_t *out) {
    if (persist_skip_past(&text, key)) *out = text.find("true") != std::string_view::npos ? 1 : 0;
}

template <std::size_t size>
void copy_cut(std::string_view value, char (&out)[size]) {
    const std::size_t len = std::min(value.size(), size - 1);
    std::memcpy(out, value.data(), len);
    out[len] = '\0';
}

// The value behind `key`, up to the next quote.
bool quoted_value(std::string_view text, std::string_view key, std::string_view *out) {
    if (!persist_skip_past(&text, key)) return false;
    const std::size_t end = text.find('"');
    if (end == std::string_view::npos) return false;
    *out = text.substr(0, end);
    return true;
}

template <std::size_t size>
void read_text(std::string_view text, std::string_view key, char (&out)[size]) {
    std::string_view value;
    if (quoted_value(text, key, &value)) copy_cut(value, out);
}

int hex_digit(char c) {
    if (is_digit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Ends at the first character that is none of a pair, the closing quote among them.
template <std::size_t size>
uint32_t decode_hex(std::string_view text, uint8_t (&out)[size]) {
    uint32_t len = 0;
    for (; len < size && text.size() >= 2; text.remove_prefix(2)) {
        const int high = hex_digit(text[0]);
        const int low = hex_digit(text[1]);
        if (high < 0 || low < 0) break;
        out[len++] = static_cast<uint8_t>(high << 4 | low);
    }
    return len;
}

void parse_will(std::string_view text, persist_session *rec) {
    read_text(text, k_will_topic, rec->will_topic);
    read_number(text, k_will_qos, &rec->will_qos);
    read_number(text, k_will_len, &rec->will_len);
    std::string_view digits;
    if (quoted_value(text, k_will_payload, &digits)) (void)decode_hex(digits, rec->will_payload);
}

bool parse_object(std::string_view object, persist_msg *out) {
    std::string_view msgid = object;
    std::string_view qos = object;
    std::string_view payload = object;
    std::string_view topic;
    if (!persist_skip_past(&msgid, "\"msgid\":") || !persist_skip_past(&qos, "\"qos\":") ||
        !quoted_value(object, "\"topic\":\"", &topic) || !persist_skip_past(&payload, "\"payload\":\""))
        return false;
    out->msgid = decimal<uint16_t>(msgid);
    out->qos = decimal<uint8_t>(qos);
    copy_cut(topic, out->topic);
    out->payload_len = decode_hex(payload, out->payload);
    out->stored_at = 0;
    return true;
}

}  // namespace

bool persist_skip_past(std::string_view *text, std::string_view key) {
    const std::size_t at = text->find(key);
    if (at == std::string_view::npos) return false;
    text->remove_prefix(at + key.size());
    return true;
}

void persist_parse_session(std::string_view text, persist_session *rec) {
    read_number(text, k_expiry_interval, &rec->session_expiry_interval);
    read_number(text, k_expiry_deadline, &rec->session_expiry_deadline);
    read_flag(text, k_clean_start, &rec->clean_start);
    read_flag(text, k_will_flag, &rec->will_flag);
    if (rec->will_flag != 0) parse_will(text, rec);
    read_number(text, k_will_delay, &rec->will_delay_interval);
    read_number(text, k_will_expiry, &rec->will_msg_expiry_interval);
    read_number(text, k_will_format, &rec->will_payload_format);
    read_text(text, k_will_content, rec->will_content_type);
    read_text(text, k_will_response, rec->will_response_topic);
    read_number(text, k_will_correlation, &rec->will_correlation_len);
}

bool persist_take_sub(std::string_view *text, persist_sub *out) {
    constexpr std::string_view behind_topic = "\",\"qos\":";
    std::string_view rest = *text;
    if (!persist_skip_past(&rest, "\"topic\":\"")) return false;
    const std::size_t end = rest.find(behind_topic);
    if (end == std::string_view::npos) return false;
    copy_cut(rest.substr(0, end), out->topic);
    rest.remove_prefix(end + behind_topic.size());
    out->qos = decimal<uint8_t>(rest);
    *text = rest;
    return true;
}

bool persist_take_msg(std::string_view *text, std::size_t object_max, persist_msg *out) {
    for (;;) {
        const std::size_t start = text->find('{');
        if (start == std::string_view::npos) return false;
        const std::size_t end = text->find('}', start);
        if (end == std::string_view::npos) return false;
        const std::string_view object = text->substr(start, std::min(end - start, object_max));
        text->remove_prefix(end + 1);
        if (parse_object(object, out)) return true;
    }
}

bool persist_has_session_key(std::string_view text) {
    return std::any_of(std::begin(k_session_keys), std::end(k_session_keys),
                       [&](std::string_view key) { return text.find(key) != std::string_view::npos; });
}

}  // namespace zeb

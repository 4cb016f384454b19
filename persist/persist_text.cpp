#include "persist/persist_text.h"

#include <algorithm>
#include <charconv>

#include "log/agent_log.h"
#include "persist/persist_parse.h"

namespace zeb {

namespace {

constexpr std::size_t k_session_share = 128;
constexpr std::size_t k_sub_share = 288;
constexpr std::size_t k_no_limit = SIZE_MAX;

static_assert(k_sub_share >= sizeof persist_sub::topic + sizeof "{'topic':'','qos':255},");
static_assert(PERSIST_MSG_SHARE >= sizeof persist_msg::topic + std::size_t{2} * PERSIST_MAX_PAYLOAD +
                                       sizeof "{'msgid':65535,'qos':255,'topic':'','payload':''},");

void report_left_out(std::string_view client_id, const char *what, std::string_view text) {
    ZEB_LOG(AGENT_LOG_WARN, "[persist] not stored because it would not read back: client=%.*s, %s=%.*s",
            static_cast<int>(client_id.size()), client_id.data(), what, static_cast<int>(text.size()),
            text.data());
}

const char *flag_text(bool set) {
    return set ? "true" : "false";
}

uint32_t payload_size(const persist_msg &msg) {
    return std::min<uint32_t>(msg.payload_len, sizeof msg.payload);
}

// A value ends at its first quote, so one that holds a quote comes back as less, or as other keys. The word
// makes a flag true that is not: a reader takes it from anywhere behind the flag's key.
bool is_readable(std::string_view value, bool will_flag) {
    return value.find('"') == std::string_view::npos &&
           (will_flag || value.find(flag_text(true)) == std::string_view::npos);
}

std::string_view readable(std::string_view client_id, const char *what, std::string_view value,
                          bool will_flag) {
    if (is_readable(value, will_flag)) return value;
    report_left_out(client_id, what, value);
    return {};
}

// The identifier is written for people and never read; only one that holds a key of the reader does harm.
std::string_view readable_id(std::string_view client_id) {
    char quoted[sizeof persist_session::client_id + 1];
    text_writer text(quoted, sizeof quoted);
    text.add("\"");
    text.add(client_id);
    if (!persist_has_session_key(text.from(0))) return client_id;
    report_left_out(client_id, "client_id", client_id);
    return {};
}

struct will_fields {
    bool flag;
    std::string_view topic;
    unsigned qos;
    uint32_t len;
};

// Without its topic a will is none.
will_fields readable_will(const persist_session &rec) {
    const std::string_view topic = persist_field(rec.will_topic);
    const bool flag = rec.will_flag != 0;
    if (is_readable(topic, flag)) return {flag, topic, rec.will_qos, rec.will_len};
    report_left_out(persist_field(rec.client_id), "will_topic", topic);
    return {false, {}, 0, 0};
}

void add_key(text_writer *out, std::string_view key, uint64_t value) {
    out->add(key);
    out->add_number(value);
}

void add_key(text_writer *out, std::string_view key, std::string_view value) {
    out->add(key);
    out->add(value);
}

void add_sub(const persist_sub &sub, text_writer *out) {
    add_key(out, "{\"topic\":\"", persist_field(sub.topic));
    add_key(out, "\",\"qos\":", uint64_t{sub.qos});
    out->add("}");
}

void add_msg(const persist_msg &msg, std::size_t limit, text_writer *out) {
    add_key(out, "{\"msgid\":", uint64_t{msg.msgid});
    add_key(out, ",\"qos\":", uint64_t{msg.qos});
    add_key(out, ",\"topic\":\"", persist_field(msg.topic));
    out->add("\",\"payload\":\"");
    out->add_hex(msg.payload, payload_size(msg), limit);
    out->add("\"}");
}

bool reads_back(std::string_view text, const persist_sub &sub) {
    persist_sub found;
    if (!persist_take_sub(&text, &found)) return false;
    if (persist_field(found.topic) != persist_field(sub.topic) || found.qos != sub.qos) return false;
    return !persist_take_sub(&text, &found);
}

bool reads_back(std::string_view text, const persist_msg &msg) {
    persist_msg found;
    if (!persist_take_msg(&text, k_no_limit, &found)) return false;
    if (persist_field(found.topic) != persist_field(msg.topic) || found.msgid != msg.msgid ||
        found.qos != msg.qos || found.payload_len != payload_size(msg) ||
        std::memcmp(found.payload, msg.payload, found.payload_len) != 0)
        return false;
    return text.empty();  // the object was all there is
}

}  // namespace

void text_writer::add_number(uint64_t value) {
    char digits[20];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value);
    add({digits, static_cast<std::size_t>(end.ptr - digits)});
}

void text_writer::add_hex(const uint8_t *data, std::size_t count, std::size_t limit) {
    constexpr char digits[] = "0123456789abcdef";
    for (std::size_t i = 0; i < count && len_ < limit; ++i) {
        const char pair[2] = {digits[data[i] >> 4], digits[data[i] & 15]};
        add({pair, sizeof pair});
    }
}

int persist_sub_count(const persist_session &rec) {
    return std::clamp(rec.sub_count, 0, PERSIST_MAX_SUBS);
}

int persist_msg_count(const persist_session &rec) {
    return std::clamp(rec.msg_count, 0, PERSIST_MAX_MSGS);
}

std::size_t persist_text_base(const persist_session &rec, int kinds) {
    std::size_t base = 0;
    if ((kinds & PERSIST_SESSION) != 0) base += k_session_share;
    if ((kinds & PERSIST_SUBS) != 0) base += static_cast<std::size_t>(persist_sub_count(rec)) * k_sub_share;
    if ((kinds & PERSIST_MSGS) != 0)
        base += static_cast<std::size_t>(persist_msg_count(rec)) * PERSIST_MSG_SHARE;
    return base;
}

void persist_format_session(const persist_session &rec, text_writer *out) {
    const std::string_view id = persist_field(rec.client_id);
    const will_fields will = readable_will(rec);
    add_key(out, "{\"client_id\":\"", readable_id(id));
    add_key(out, "\",\"clean_session\":", flag_text(rec.clean_session != 0));
    add_key(out, ",\"clean_start\":", flag_text(rec.clean_start != 0));
    add_key(out, ",\"session_expiry_interval\":", uint64_t{rec.session_expiry_interval});
    add_key(out, ",\"session_expiry_deadline\":", rec.session_expiry_deadline);
    add_key(out, ",\"last_online\":", rec.last_online);
    add_key(out, ",\"will_flag\":", flag_text(will.flag));
    add_key(out, ",\"will_topic\":\"", will.topic);
    add_key(out, "\",\"will_qos\":", uint64_t{will.qos});
    add_key(out, ",\"will_len\":", uint64_t{will.len});
    out->add(",\"will_payload\":\"");
    out->add_hex(rec.will_payload, std::min<std::size_t>(will.len, sizeof rec.will_payload), k_no_limit);
    add_key(out, "\",\"will_delay_interval\":", uint64_t{rec.will_delay_interval});
    add_key(out, ",\"will_msg_expiry_interval\":", uint64_t{rec.will_msg_expiry_interval});
    add_key(out, ",\"will_payload_format\":", uint64_t{rec.will_payload_format});
    add_key(out, ",\"will_content_type\":\"",
            readable(id, "will_content_type", persist_field(rec.will_content_type), will.flag));
    add_key(out, "\",\"will_response_topic\":\"",
            readable(id, "will_response_topic", persist_field(rec.will_response_topic), will.flag));
    add_key(out, "\",\"will_correlation_len\":", uint64_t{rec.will_correlation_len});
    out->add("}");
}

void persist_format_subs(const persist_session &rec, text_writer *out) {
    out->add("{\"subs\":[");
    const std::size_t first = out->len();
    for (int i = 0; i < persist_sub_count(rec); ++i) {
        const persist_sub &sub = rec.subs[i];
        const std::size_t before = out->len();
        if (before != first) out->add(",");
        const std::size_t start = out->len();
        add_sub(sub, out);
        if (reads_back(out->from(start), sub)) continue;
        report_left_out(persist_field(rec.client_id), "filter", persist_field(sub.topic));
        out->rewind(before);
    }
    out->add("]}");
}

void persist_format_msgs(const persist_session &rec, std::size_t base, text_writer *out) {
    constexpr std::size_t room_for_pairs = 92;  // of the spare, so that the closing text has its place
    out->add("{\"msgs\":[");
    const std::size_t first = out->len();
    for (int i = 0; i < persist_msg_count(rec); ++i) {
        const persist_msg &msg = rec.msgs[i];
        const std::size_t before = out->len();
        if (before != first) out->add(",");
        const std::size_t start = out->len();
        add_msg(msg, base + room_for_pairs, out);
        if (reads_back(out->from(start), msg)) continue;
        report_left_out(persist_field(rec.client_id), "topic", persist_field(msg.topic));
        out->rewind(before);
    }
    out->add("]}");
}

bool persist_msg_reads_back(std::string_view client_id, const persist_msg &msg) {
    char buf[PERSIST_MSG_SHARE];
    text_writer text(buf, sizeof buf);
    add_msg(msg, k_no_limit, &text);
    if (reads_back(text.from(0), msg)) return true;
    report_left_out(client_id, "topic", persist_field(msg.topic));
    return false;
}

}  // namespace zeb

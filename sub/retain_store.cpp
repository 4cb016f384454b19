#include "sub/retain_store.h"

#include <algorithm>
#include <cstring>

#include "log/agent_log.h"
#include "log/platform_time.h"
#include "persist/persist.h"
#include "sub/text_hash.h"

namespace zeb {

namespace {

constexpr uint32_t k_payload_max = sizeof retain_msg::payload;

enum class set_result { updated, removed, nothing, full, added };

// Everything down to the public functions runs under g_sub_mgr.lock.

int message_count() {
    if (g_sub_mgr.retains == nullptr) return 0;
    return std::clamp(g_sub_mgr.retain_count.load(std::memory_order_relaxed), 0, RETAIN_MAX);
}

// The hashes are those of the first `count` messages from here on.
void set_message_count(int count) {
    g_sub_mgr.retain_count.store(count, std::memory_order_relaxed);
    g_sub_mgr.retain_hashed = count;
}

void rehash(int count) {
    for (int i = 0; i < count; ++i) g_sub_mgr.retain_hash[i] = text_hash(g_sub_mgr.retains[i].topic);
    g_sub_mgr.retain_hashed = count;
}

// The position of the message, or -1. Looks at the packed hashes first: the messages themselves lie far
// apart.
int find_message(const char *topic) {
    const int count = message_count();
    if (g_sub_mgr.retain_hashed != count) rehash(count);  // the array was filled directly
    const uint32_t hash = text_hash(topic);
    for (int i = 0; i < count; ++i)
        if (g_sub_mgr.retain_hash[i] == hash && std::strcmp(g_sub_mgr.retains[i].topic, topic) == 0) return i;
    return -1;
}

void remove_message(int pos) {
    const int count = message_count();
    const auto behind = static_cast<size_t>(count - pos - 1);
    std::memmove(&g_sub_mgr.retains[pos], &g_sub_mgr.retains[pos + 1], behind * sizeof(retain_msg));
    std::memmove(&g_sub_mgr.retain_hash[pos], &g_sub_mgr.retain_hash[pos + 1], behind * sizeof(uint32_t));
    set_message_count(count - 1);
}

// The unused end of the payload is cleared: records go to disk as they lie in memory, and a message that was
// replaced has no business there.
void write_payload(retain_msg *msg, const uint8_t *payload, uint32_t payload_len, uint32_t qos) {
    std::memcpy(msg->payload, payload, payload_len);
    std::memset(msg->payload + payload_len, 0, k_payload_max - payload_len);
    msg->payload_len = payload_len;
    msg->qos = qos;
    msg->timestamp = platform_wall_sec();
}

void append_message(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos) {
    const int pos = message_count();
    retain_msg *msg = &g_sub_mgr.retains[pos];
    std::memset(msg, 0, sizeof *msg);
    std::memcpy(msg->topic, topic, strnlen(topic, sizeof msg->topic - 1));
    write_payload(msg, payload, payload_len, qos);
    g_sub_mgr.retain_hash[pos] = text_hash(msg->topic);
    set_message_count(pos + 1);
}

set_result set_message(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos) {
    const int pos = find_message(topic);
    if (pos >= 0 && payload_len > 0) {
        write_payload(&g_sub_mgr.retains[pos], payload, payload_len, qos);
        return set_result::updated;
    }
    if (pos >= 0) {
        remove_message(pos);
        return set_result::removed;
    }
    if (payload_len == 0) return set_result::nothing;
    if (g_sub_mgr.retains == nullptr || message_count() == RETAIN_MAX) return set_result::full;
    append_message(topic, payload, payload_len, qos);
    return set_result::added;
}

// Alive in the very second of its deadline. A deadline beyond the range of time never comes.
bool is_expired(const retain_msg &msg, int64_t now) {
    const int64_t lifetime = msg.expiry_interval != 0 ? msg.expiry_interval : RETAIN_DEFAULT_EXPIRY_SEC;
    int64_t deadline;
    return !__builtin_add_overflow(msg.timestamp, lifetime, &deadline) && deadline < now;
}

// Removes all expired messages in one pass and returns their number.
int remove_expired(int64_t now) {
    const int count = message_count();
    int kept = 0;
    for (int i = 0; i < count; ++i) {
        retain_msg &msg = g_sub_mgr.retains[i];
        if (is_expired(msg, now)) {
            ZEB_LOG(AGENT_LOG_INFO, "保留消息已过期，自动清理: topic=%s", msg.topic);
            continue;
        }
        if (kept != i) g_sub_mgr.retains[kept] = msg;
        ++kept;
    }
    if (kept == count) return 0;
    set_message_count(kept);
    rehash(kept);
    return count - kept;
}

bool set_arguments_are_valid(const char *topic, const uint8_t *payload, uint32_t payload_len) {
    if (topic == nullptr || *topic == '\0') {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] retain_msg_set：无效Topic（空指针/空字符串）");
        return false;
    }
    if (payload_len > k_payload_max || (payload == nullptr && payload_len > 0)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[RETAIN] payload refused: topic=%s, payload=%p, len=%u, max=%u", topic,
                static_cast<const void *>(payload), payload_len, k_payload_max);
        return false;
    }
    return true;
}

void save() {
    (void)persist_retain_save();  // reports its own failure; the message in memory stays good
}

int report_set(set_result result, const char *topic) {
    switch (result) {
        case set_result::nothing:
            return 0;
        case set_result::full:
            ZEB_LOG(AGENT_LOG_ERROR, "保留消息数量超限（max=%d）", RETAIN_MAX);
            return -4;
        case set_result::updated:
            save();
            ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：更新Topic=%s的保留消息", topic);
            return 0;
        case set_result::removed:
            save();
            ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：删除Topic=%s的保留消息（空Payload）", topic);
            return 0;
        case set_result::added:
            break;
    }
    save();
    ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：新增Topic=%s的保留消息", topic);
    return 0;
}

}  // namespace

int retain_msg_set(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos) {
    if (!set_arguments_are_valid(topic, payload, payload_len)) return -1;
    retain_clean_expired();
    set_result result;
    {
        const std::lock_guard guard(g_sub_mgr.lock);
        result = set_message(topic, payload, payload_len, qos);
    }
    return report_set(result, topic);
}

int retain_msg_set_with_expiry(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos,
                               uint32_t expiry_interval) {
    const int rc = retain_msg_set(topic, payload, payload_len, qos);
    if (rc != 0 || expiry_interval == 0) return rc;
    {
        const std::lock_guard guard(g_sub_mgr.lock);
        const int pos = find_message(topic);
        if (pos >= 0) g_sub_mgr.retains[pos].expiry_interval = expiry_interval;
    }
    save();
    return rc;
}

int retain_msg_get(const char *topic, retain_msg *out) {
    if (topic == nullptr || out == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] retain_msg_get：入参无效（topic=%p, msg=%p）",
                static_cast<const void *>(topic), static_cast<void *>(out));
        return -1;
    }
    const std::lock_guard guard(g_sub_mgr.lock);
    const int pos = find_message(topic);
    if (pos < 0) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[DEBUG] retain_msg_get：未找到保留消息（topic=%s）", topic);
        return -5;
    }
    *out = g_sub_mgr.retains[pos];
    ZEB_LOG(AGENT_LOG_DEBUG, "[DEBUG] retain_msg_get：找到保留消息（topic=%s, payload_len=%u）", topic,
            out->payload_len);
    return 0;
}

int retain_msg_delete(const char *topic) {
    if (topic == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] retain_msg_delete：入参无效（topic=%p）",
                static_cast<const void *>(topic));
        return -1;
    }
    {
        const std::lock_guard guard(g_sub_mgr.lock);
        const int pos = find_message(topic);
        if (pos < 0) return -5;
        remove_message(pos);
    }
    save();
    return 0;
}

// One save per removed message, all of them after the lock is released: the save comes back for it.
void retain_clean_expired() {
    const int64_t now = platform_wall_sec();
    int removed;
    {
        const std::lock_guard guard(g_sub_mgr.lock);
        removed = remove_expired(now);
    }
    for (; removed > 0; --removed) save();
}

int retain_fill_topic_list(char *buf, int size) {
    if (buf == nullptr || size < 1) return -1;
    const std::lock_guard guard(g_sub_mgr.lock);
    const auto room = static_cast<size_t>(size);
    const int count = message_count();
    size_t used = 0;
    int written = 0;
    for (int i = 0; i < count; ++i) {
        const char *topic = g_sub_mgr.retains[i].topic;
        const size_t len = std::strlen(topic);
        if (used + len + 1 >= room) continue;  // a shorter one further on may still fit
        std::memcpy(buf + used, topic, len);
        buf[used + len] = '\n';
        used += len + 1;
        ++written;
    }
    buf[used] = '\0';
    return written;
}

int retain_store_copy(retain_msg *out, int max) {
    const std::lock_guard guard(g_sub_mgr.lock);
    const int count = std::min(message_count(), max);
    if (count > 0) std::memcpy(out, g_sub_mgr.retains, static_cast<size_t>(count) * sizeof(retain_msg));
    return std::max(count, 0);
}

int retain_store_replace(const retain_msg *messages, int count) {
    const std::lock_guard guard(g_sub_mgr.lock);
    if (g_sub_mgr.retains == nullptr) return 0;
    count = std::clamp(count, 0, RETAIN_MAX);
    for (int i = 0; i < count; ++i) {
        retain_msg &msg = g_sub_mgr.retains[i];
        msg = messages[i];
        msg.topic[sizeof msg.topic - 1] = '\0';
        msg.payload_len = std::min(msg.payload_len, k_payload_max);
    }
    set_message_count(count);
    rehash(count);
    return count;
}

}  // namespace zeb

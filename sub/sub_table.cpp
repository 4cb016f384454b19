#include "sub/sub_table.h"

#include <algorithm>
#include <cstring>

#include "log/agent_log.h"
#include "log/platform_memory.h"
#include "sub/cid_hash.h"
#include "sub/topic_filter.h"

namespace zeb {

namespace {

constexpr size_t k_subs_bytes = SUB_MAX * sizeof(mqtt_subscription);
constexpr size_t k_retains_bytes = RETAIN_MAX * sizeof(retain_msg);

template <size_t N>
void copy_cut(char (&to)[N], const char *from) {
    const size_t len = strnlen(from, N - 1);
    std::memcpy(to, from, len);
    to[len] = '\0';
}

void set_entry_count(int count) {
    g_sub_mgr.sub_count.store(count, std::memory_order_relaxed);
}

// The index, brought up to date in case the table was filled directly. Null when there is none.
sub_index *current_index() {
    sub_index *index = g_sub_mgr.index;
    const int count = sub_table_count();
    if (index != nullptr && !sub_index_is_current(index, g_sub_mgr.subs, count))
        sub_index_rebuild(index, g_sub_mgr.subs, count);
    return index;
}

void walk_topic(const char *topic, int max_matched, sub_positions *out) {
    const int count = sub_table_count();
    int matched = 0;
    for (int pos = 0; pos < count && matched < max_matched; ++pos) {
        const mqtt_subscription &sub = g_sub_mgr.subs[pos];
        ZEB_LOG(AGENT_LOG_DEBUG, "[TRACE] sub_match：检查订阅%d（client_id=%s, filter=%s）", pos,
                sub.client_id, sub.topic_filter);
        if (topic_match_wildcard(sub.topic_filter, topic) == 0) continue;
        out->add(pos);
        ++matched;
    }
}

int find_pair(const char *client_id, const char *topic_filter) {
    sub_positions found;
    sub_table_find_client(client_id, topic_filter, &found);
    return found.next(0);
}

void append_entry(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session,
                  uint32_t identifier) {
    const int pos = sub_table_count();
    mqtt_subscription &sub = g_sub_mgr.subs[pos];
    copy_cut(sub.client_id, client_id);
    copy_cut(sub.topic_filter, topic_filter);
    sub.qos = qos;
    sub.clean_session = clean_session;
    sub.subscription_identifier = identifier;
    if (g_sub_mgr.index != nullptr) sub_index_append(g_sub_mgr.index, pos);
    set_entry_count(pos + 1);
}

// Moves the used bytes only: most of an entry is the unused end of its filter.
void move_entry(int from, int to) {
    const mqtt_subscription &source = g_sub_mgr.subs[from];
    mqtt_subscription &target = g_sub_mgr.subs[to];
    copy_cut(target.client_id, source.client_id);
    copy_cut(target.topic_filter, source.topic_filter);
    target.qos = source.qos;
    target.clean_session = source.clean_session;
    target.subscription_identifier = source.subscription_identifier;
    if (g_sub_mgr.index != nullptr) sub_index_move(g_sub_mgr.index, from, to);
}

void fill_route(int pos, sub_route *out) {
    if (const sub_index *index = current_index(); index != nullptr) {
        sub_index_route(index, pos, out);
        return;
    }
    const mqtt_subscription &sub = g_sub_mgr.subs[pos];
    copy_cut(out->client_id, sub.client_id);
    out->qos = static_cast<uint8_t>(sub.qos);
    out->shared = topic_filter_is_shared(sub.topic_filter);
    out->cid_hash = cid_hash(out->client_id);
    out->filter = "";
}

}  // namespace

int sub_table_count() {
    if (g_sub_mgr.subs == nullptr) return 0;
    return std::clamp(g_sub_mgr.sub_count.load(std::memory_order_relaxed), 0, SUB_MAX);
}

void sub_table_release() {
    if (g_sub_mgr.index != nullptr) sub_index_destroy(g_sub_mgr.index);
    platform_zero_free(g_sub_mgr.subs, k_subs_bytes);
    platform_zero_free(g_sub_mgr.retains, k_retains_bytes);
    g_sub_mgr.index = nullptr;
    g_sub_mgr.subs = nullptr;
    g_sub_mgr.retains = nullptr;
    g_sub_mgr.retain_hashed = 0;
    set_entry_count(0);
    g_sub_mgr.retain_count.store(0, std::memory_order_relaxed);
}

int sub_table_allocate() {
    g_sub_mgr.subs = static_cast<mqtt_subscription *>(platform_zero_alloc(k_subs_bytes));
    if (g_sub_mgr.subs == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] sub_init：分配订阅数组失败（需要内存=%lu字节）",
                static_cast<unsigned long>(k_subs_bytes));
        ZEB_LOG(AGENT_LOG_ERROR, "分配订阅数组失败");
        return -2;
    }
    g_sub_mgr.retains = static_cast<retain_msg *>(platform_zero_alloc(k_retains_bytes));
    if (g_sub_mgr.retains == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] sub_init：分配保留消息数组失败（需要内存=%lu字节）",
                static_cast<unsigned long>(k_retains_bytes));
        sub_table_release();
        ZEB_LOG(AGENT_LOG_ERROR, "分配保留消息数组失败");
        return -2;
    }
    g_sub_mgr.index = sub_index_create(g_sub_mgr.subs);
    if (g_sub_mgr.index == nullptr)
        ZEB_LOG(AGENT_LOG_WARN, "[SUB] no memory for the subscription index: the table is searched linearly");
    return 0;
}

void sub_table_find_client(const char *client_id, const char *topic_filter, sub_positions *out) {
    if (const sub_index *index = current_index(); index != nullptr) {
        sub_index_find_client(index, client_id, topic_filter, out);
        return;
    }
    const int count = sub_table_count();
    for (int pos = 0; pos < count; ++pos) {
        const mqtt_subscription &sub = g_sub_mgr.subs[pos];
        if (std::strcmp(sub.client_id, client_id) == 0 &&
            (topic_filter == nullptr || std::strcmp(sub.topic_filter, topic_filter) == 0))
            out->add(pos);
    }
}

// With debug lines on the table is walked, so that the log shows what became of each entry.
void sub_table_find_topic(const char *topic, int max_matched, sub_positions *out) {
    ZEB_LOG(AGENT_LOG_DEBUG, "[DEBUG] sub_match：开始匹配（topic=%s, 当前订阅数=%d）", topic,
            sub_table_count());
    const sub_index *index = agent_log_enabled(AGENT_LOG_DEBUG) ? nullptr : current_index();
    if (index != nullptr)
        sub_index_find_topic(index, topic, out);
    else
        walk_topic(topic, max_matched, out);
}

sub_store_result sub_table_store(const char *client_id, const char *topic_filter, uint32_t qos,
                                 uint8_t clean_session, const uint32_t *identifier) {
    if (g_sub_mgr.subs == nullptr) return sub_store_result::no_table;
    const int pos = find_pair(client_id, topic_filter);
    if (pos >= 0) {
        mqtt_subscription &sub = g_sub_mgr.subs[pos];
        sub.qos = qos;
        sub.clean_session = clean_session;
        if (identifier != nullptr) sub.subscription_identifier = *identifier;
        if (g_sub_mgr.index != nullptr) sub_index_update(g_sub_mgr.index, pos);
        return sub_store_result::updated;
    }
    if (sub_table_count() == SUB_MAX) return sub_store_result::full;
    append_entry(client_id, topic_filter, qos, clean_session, identifier != nullptr ? *identifier : 0);
    return sub_store_result::added;
}

int sub_table_remove(const sub_positions &gone) {
    const int first = gone.next(0);
    if (first < 0) return 0;
    const int count = sub_table_count();
    int kept = first;
    for (int pos = first; pos < count; ++pos) {
        if (!gone.has(pos))
            move_entry(pos, kept++);
        else if (g_sub_mgr.index != nullptr)
            sub_index_drop(g_sub_mgr.index, pos);
    }
    set_entry_count(kept);
    return count - kept;
}

int sub_table_routes(const sub_positions &found, int max_matched, sub_route_list *out) {
    const int count = std::min(found.count(), max_matched);
    if (!out->reserve_routes(count)) return -1;

    size_t text_bytes = 0;
    int pos = found.next(0);
    for (int i = 0; i < count; ++i, pos = found.next(pos + 1)) {
        fill_route(pos, &out->routes[i]);
        if (out->all_filters || out->routes[i].shared)
            text_bytes += std::strlen(g_sub_mgr.subs[pos].topic_filter) + 1;
    }
    if (!out->reserve_text(text_bytes)) return -1;

    pos = text_bytes > 0 ? found.next(0) : -1;
    for (int i = 0; i < count && pos >= 0; ++i, pos = found.next(pos + 1)) {
        if (out->all_filters || out->routes[i].shared)
            out->routes[i].filter = out->keep_text(g_sub_mgr.subs[pos].topic_filter);
    }
    out->count = count;
    return count;
}

}  // namespace zeb

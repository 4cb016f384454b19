#include "sub/sub_mgr.h"

#include "log/agent_log.h"
#include "sub/sub_table.h"
#include "sub/topic_filter.h"

namespace zeb {

sub_manager g_sub_mgr;

namespace {

constexpr char k_version[] = "1.0.0";
constexpr uint32_t k_max_qos = 2;

const char *or_null(const char *text) {
    return text != nullptr ? text : "(null)";
}

bool is_empty(const char *text) {
    return text == nullptr || *text == '\0';
}

bool match_arguments_are_valid(const char *topic, const void *results, int max_matched) {
    if (topic != nullptr && results != nullptr && max_matched >= 1) return true;
    ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] sub_match：入参无效（topic=%p, matched=%p, max_matched=%d）",
            static_cast<const void *>(topic), results, max_matched);
    return false;
}

void log_match(const char *topic, int matched) {
    ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：Topic=%s 匹配到 %d 个订阅者", topic, matched);
}

}  // namespace

int sub_init() {
    ZEB_LOG(AGENT_LOG_DEBUG, "[DEBUG] sub_init：开始初始化订阅管理器");
    const std::lock_guard guard(g_sub_mgr.lock);
    sub_table_release();
    const int rc = sub_table_allocate();
    if (rc == 0) ZEB_LOG(AGENT_LOG_INFO, "订阅管理器初始化成功（符合MQTT 3.1.1标准，版本=%s）", k_version);
    return rc;
}

void sub_deinit() {
    {
        const std::lock_guard guard(g_sub_mgr.lock);
        ZEB_LOG(AGENT_LOG_DEBUG, "[DEBUG] sub_deinit：已加锁（当前订阅数=%d）", sub_table_count());
        sub_table_release();
    }
    ZEB_LOG(AGENT_LOG_INFO, "订阅管理器销毁成功");
}

int sub_add(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session) {
    if (is_empty(client_id) || is_empty(topic_filter)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] sub_add：无效的订阅参数（client_id=%s, topic_filter=%s）",
                or_null(client_id), or_null(topic_filter));
        return -1;
    }
    if (qos > k_max_qos) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] sub_add：无效的QoS=%d（仅支持0/1/2）", static_cast<int>(qos));
        return -1;
    }
    if (mqtt_filter_is_valid(topic_filter) == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] sub_add：非法过滤器拒绝订阅（client_id=%s, filter=%s）", client_id,
                topic_filter);
        return -1;
    }

    sub_store_result result;
    {
        const std::lock_guard guard(g_sub_mgr.lock);
        ZEB_LOG(AGENT_LOG_DEBUG, "[DEBUG] sub_add：已加锁（当前订阅数=%d）", sub_table_count());
        result = sub_table_store(client_id, topic_filter, qos, clean_session, nullptr);
        if (result == sub_store_result::full)
            ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] sub_add：订阅数量超限（当前=%d, 最大=%d）", sub_table_count(),
                    SUB_MAX);
    }
    switch (result) {
        case sub_store_result::updated:
            ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：更新订阅：ClientID=%s, Topic=%s, QoS=%d", client_id,
                    topic_filter, static_cast<int>(qos));
            return 0;
        case sub_store_result::added:
            ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：新增订阅：ClientID=%s, Topic=%s, QoS=%d, CleanSession=%d",
                    client_id, topic_filter, static_cast<int>(qos), static_cast<int>(clean_session));
            return 0;
        case sub_store_result::full:
            ZEB_LOG(AGENT_LOG_ERROR, "订阅数量超限（max=%d）", SUB_MAX);
            return -4;
        case sub_store_result::no_table:
            break;
    }
    ZEB_LOG(AGENT_LOG_ERROR, "[SUB] no subscription table: ClientID=%s, Topic=%s refused", client_id,
            topic_filter);
    return -4;
}

int sub_add_with_id(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session,
                    uint32_t subscription_identifier) {
    if (subscription_identifier == 0) return sub_add(client_id, topic_filter, qos, clean_session);
    if (client_id == nullptr || topic_filter == nullptr || qos > k_max_qos) return -1;
    if (mqtt_filter_is_valid(topic_filter) == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] sub_add_with_id：非法过滤器拒绝订阅（client_id=%s, filter=%s）",
                client_id, topic_filter);
        return -1;
    }
    const std::lock_guard guard(g_sub_mgr.lock);
    const sub_store_result result =
        sub_table_store(client_id, topic_filter, qos, clean_session, &subscription_identifier);
    return result == sub_store_result::added || result == sub_store_result::updated ? 0 : -4;
}

int sub_remove(const char *client_id, const char *topic_filter) {
    if (is_empty(client_id)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] sub_remove：无效的ClientID（空指针/空字符串）");
        return -1;
    }
    int removed;
    {
        const std::lock_guard guard(g_sub_mgr.lock);
        ZEB_LOG(AGENT_LOG_DEBUG, "[DEBUG] sub_remove：已加锁（当前订阅数=%d）", sub_table_count());
        sub_positions gone;
        sub_table_find_client(client_id, topic_filter, &gone);
        removed = sub_table_remove(gone);
    }
    ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：移除订阅：ClientID=%s, Topic=%s, 移除数量=%d", client_id,
            topic_filter != nullptr ? topic_filter : "所有", removed);
    return removed;
}

int sub_match(const char *topic, mqtt_subscription *results, int max_matched) {
    if (!match_arguments_are_valid(topic, results, max_matched)) return 0;
    int matched = 0;
    {
        const std::lock_guard guard(g_sub_mgr.lock);
        sub_positions found;
        sub_table_find_topic(topic, max_matched, &found);
        for (int pos = found.next(0); pos >= 0 && matched < max_matched; pos = found.next(pos + 1))
            results[matched++] = g_sub_mgr.subs[pos];
    }
    log_match(topic, matched);
    return matched;
}

int sub_match_routes(const char *topic, sub_route_list *out, int max_matched) {
    if (!match_arguments_are_valid(topic, out, max_matched)) return 0;
    int matched;
    {
        const std::lock_guard guard(g_sub_mgr.lock);
        sub_positions found;
        sub_table_find_topic(topic, max_matched, &found);
        matched = sub_table_routes(found, max_matched, out);
    }
    if (matched >= 0) log_match(topic, matched);
    return matched;
}

int sub_get_client_sub_count(const char *client_id) {
    if (is_empty(client_id)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[DEBUG] sub_get_client_sub_count：无效的ClientID（空指针/空字符串）");
        return -1;
    }
    int count;
    {
        const std::lock_guard guard(g_sub_mgr.lock);
        sub_positions found;
        sub_table_find_client(client_id, nullptr, &found);
        count = found.count();
    }
    ZEB_LOG(AGENT_LOG_INFO, "sub_get_client_sub_count：ClientID=%s, 订阅数量=%d", client_id, count);
    return count;
}

int sub_find_by_identifier(uint32_t subscription_identifier, mqtt_subscription *out) {
    if (out == nullptr || subscription_identifier == 0) return -1;
    const std::lock_guard guard(g_sub_mgr.lock);
    const int count = sub_table_count();
    for (int pos = 0; pos < count; ++pos) {
        if (g_sub_mgr.subs[pos].subscription_identifier != subscription_identifier) continue;
        *out = g_sub_mgr.subs[pos];
        return 0;
    }
    return -1;
}

}  // namespace zeb

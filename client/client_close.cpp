// Ending connections: the one close path, the keep-alive scan, session expiry.
#include <cstring>

#include "client/client_internal.h"
#include "log/agent_log.h"
#include "log/platform_time.h"
#include "packet/packet_handler.h"
#include "qos/qos_reliable.h"
#include "stats/mqtt_stats.h"

namespace zeb {

namespace {

constexpr uint32_t k_keepalive_default_ms = 60000;  // what a client that asks for 0 gets

// A newer connection has taken the identifier over, and the files that bear it.
bool has_successor(const mqtt_client *client, const char *id) {
    const client_ref holder = client_acquire_by_cid(id);
    return holder && holder.get() != client;
}

// A session that CONNECT opened for longer outlives a lost connection by its expiry interval; every other
// goes at once. After DISCONNECT the packet handler has settled this already.
void settle_session_expiry(mqtt_client *client, const char *id) {
    if (client->clean_session.load(std::memory_order_relaxed) != 0 ||
        client->disconnect_received.load(std::memory_order_relaxed) != 0)
        return;
    const uint32_t interval = client->session_expiry_interval.load(std::memory_order_relaxed);
    const bool succeeded = has_successor(client, id);
    if (interval == 0) {
        if (succeeded) return;
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] 会话立即删除(expiry=0): %s", id);
        persist_remove(id);
        return;
    }
    const uint64_t deadline = static_cast<uint64_t>(platform_wall_sec()) + interval;
    client->session_expiry_deadline.store(deadline, std::memory_order_relaxed);
    ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] 会话已设置过期: %s, 剩余=%u秒, 截止=%llu", id, interval,
            static_cast<unsigned long long>(deadline));
    if (succeeded) return;
    std::lock_guard lock(client->session_lock);
    persist_mark(&client->session, PERSIST_SESSION);
}

// Only a client that said goodbye in time takes its will with it.
bool will_is_due(const mqtt_client *client, const char *id) {
    if (client->will_msg_used.load(std::memory_order_relaxed) == 0 ||
        client->will_done.load(std::memory_order_relaxed) != 0)
        return false;
    if (client->timed_out.load(std::memory_order_relaxed) != 0) return true;
    if (client->disconnect_received.load(std::memory_order_relaxed) != 0) return false;
    ZEB_LOG(AGENT_LOG_INFO, "[遗嘱调试][异常断开] ClientID=%s, 未发送DISCONNECT报文，强制触发遗嘱发送", id);
    return true;
}

// The peer may have gone first, or the record be closed a second time: the handle is then free or another
// client's already.
void close_connection(const mqtt_client *client) {
    netip_close_connection(client->handle.load(std::memory_order_relaxed),
                           client->connection.load(std::memory_order_relaxed));
}

// Out of the tables and off the network. Kick, time-out and an over-size packet end here without the packet
// handler having looked at the subscriptions: those of a clean session go with their client, unless a newer
// connection carries the same identifier.
void leave(mqtt_client *client, const char *id, bool was_logined) {
    // Asked while the client is still the one that its identifier stands for, if it is: what is the
    // identifier's goes with the newest connection, also when an older one lives on.
    const bool succeeded = has_successor(client, id);
    client_enter_closing(client);
    qos_reliable_drop_client(
        client);  // a delayed will may keep the record for long, and nothing more is sent
    client_forget_cid(client);
    if (was_logined && client->clean_session.load(std::memory_order_relaxed) != 0 &&
        client->subs_settled.exchange(1, std::memory_order_relaxed) == 0 && !succeeded)
        sub_remove(id, nullptr);
    close_connection(client);
    // Not before the network has let go: a packet that its I/O thread is just delivering would otherwise find
    // no client and make a new one, which nobody would ever close.
    client_clear_handle_slot(client);
}

// The record stays, CLOSING, until the will-delay scan has finished with it.
void enter_will_delay(mqtt_client *client, const char *id, bool was_logined) {
    ZEB_LOG(AGENT_LOG_WARN, "[WILL-ENTER] 客户端进入遗嘱延迟: %s, will_delay_sec=%u", id,
            client->will_delay_sec.load(std::memory_order_relaxed));
    client_count_will(client);
    packet_start_will_delay(client);
    leave(client, id, was_logined);
    ZEB_LOG(AGENT_LOG_DEBUG, "[遗嘱调试][延迟释放客户端] ClientID=%s，等待遗嘱发送完成后再释放", id);
}

void close_normally(mqtt_client *client, const char *id, bool was_logined) {
    ZEB_LOG(AGENT_LOG_WARN, "[FREE-NORMAL] 客户端正常关闭: %s", id);
    leave(client, id, was_logined);
    if (client_uncount_will(client)) g_will_delay_client_count.fetch_sub(1, std::memory_order_relaxed);
    if (client->in_use.load(std::memory_order_relaxed) != 0) client_pool_release(client);
    ZEB_LOG(AGENT_LOG_DEBUG, "[遗嘱调试][客户端关闭完成] ClientID=%s, 状态改为CLOSED", id);
}

void log_closed_already(const char *id) {
    ZEB_LOG(AGENT_LOG_DEBUG, "[遗嘱调试][关闭客户端] ClientID=%s, 状态已关闭，跳过", id);
}

}  // namespace

void client_close(mqtt_client *client) {
    if (client == nullptr) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[遗嘱调试][关闭客户端] 客户端为空，跳过");
        return;
    }
    const client_ref hold(client);
    char id[65];
    client_copy_id(client, id);
    const uint32_t state = client->state.load(std::memory_order_relaxed);
    if (state == CLOSED) {
        log_closed_already(id);
        return;
    }
    // One thread closes; for another one that comes meanwhile, or a callback that kicks the very client whose
    // will it is told of, only this is left: when it is the peer that went, the handle is free once we return
    // and nothing may be sent there any more. A record that waits in CLOSING may be closed again.
    if (client->closing.exchange(1, std::memory_order_acq_rel) != 0) {
        client_enter_closing(client);
        return;
    }
    ZEB_LOG(AGENT_LOG_DEBUG, "[MQTT5] Client close: max_packet_size=%u, client=%s",
            client->max_packet_size.load(std::memory_order_relaxed), id);
    settle_session_expiry(client, id);
    if (will_is_due(client, id)) {
        enter_will_delay(client, id, state == LOGINED);
        client->closing.store(0, std::memory_order_release);
    } else {
        close_normally(client, id,
                       state == LOGINED);  // leaves `closing` set: nobody closes a released record
    }
}

void client_set_keepalive(mqtt_client *client, uint32_t keepalive_seconds) {
    const uint32_t handle =
        client == nullptr ? NETIP_HANDLE_NONE : client->handle.load(std::memory_order_relaxed);
    const uint32_t state = client == nullptr ? 0 : client->state.load(std::memory_order_relaxed);
    if (client == nullptr || state == CLOSED || handle == NETIP_HANDLE_NONE) {
        ZEB_LOG(AGENT_LOG_ERROR, "client_set_keepalive: 无效客户端实例（handle=0x%08X, state=%d）", handle,
                static_cast<int>(state));
        return;
    }
    const uint32_t keepalive = keepalive_seconds == 0 ? k_keepalive_default_ms : keepalive_seconds * 1000u;
    {
        std::lock_guard lock(client_handle_lock(handle));
        client->keepalive.store(keepalive, std::memory_order_relaxed);
        client->last_active.store(platform_mono_ms(), std::memory_order_relaxed);
    }
    if (!agent_log_enabled(AGENT_LOG_DEBUG)) return;
    char id[65];
    client_copy_id(client, id);
    agent_log(AGENT_LOG_DEBUG,
              "client_set_keepalive: handle=0x%08X, cid=%s, keepalive=%lu秒（超时阈值=%lu秒）", handle, id,
              static_cast<unsigned long>(keepalive / 1000u),
              static_cast<unsigned long>(keepalive * 3u / 2000u));
}

namespace {

// Process-wide and never reset: a large table is covered over several passes.
std::atomic<int32_t> s_scan_block{0};

// Which connection was meant: the record may be another's by the time its turn comes.
struct close_entry {
    mqtt_client *client;
    uint64_t generation;
};

struct close_list {
    close_entry entries[CLIENT_CLOSE_LIST_MAX];
    int count = 0;
    bool full() const { return count >= CLIENT_CLOSE_LIST_MAX; }
};

void log_visit(mqtt_client *client, int block, int i, const char *id) {
    ZEB_LOG(
        AGENT_LOG_DEBUG,
        "[超时扫描-详细] block=%d, idx=%d | used=%d | state=%d | cid=%s | handle=0x%x | last_active=%lu | "
        "keepalive=%lu",
        block, i, 1, static_cast<int>(client->state.load(std::memory_order_relaxed)), id,
        client->handle.load(std::memory_order_relaxed),
        static_cast<unsigned long>(client->last_active.load(std::memory_order_relaxed)),
        static_cast<unsigned long>(client->keepalive.load(std::memory_order_relaxed)));
}

void judge(mqtt_client *client, int block, int i, uint64_t now, uint32_t default_timeout_ms,
           close_list *list) {
    const uint64_t generation = client->generation.load(std::memory_order_relaxed);
    const client_ref held = client_acquire_generation(client, generation);
    if (!held || client->in_use.load(std::memory_order_relaxed) == 0 ||
        client->handle.load(std::memory_order_relaxed) == NETIP_HANDLE_NONE)
        return;
    char id[65];
    client_copy_id(client, id);
    log_visit(client, block, i, id);
    if (!client_is_online(client)) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[超时跳过] cid=%s | 状态不是在线状态(state=%d)", id,
                static_cast<int>(client->state.load(std::memory_order_relaxed)));
        return;
    }
    const uint32_t keepalive = client->keepalive.load(std::memory_order_relaxed);
    const uint64_t threshold = keepalive != 0 ? keepalive * 3u / 2u : default_timeout_ms;
    const uint64_t last_active = client->last_active.load(std::memory_order_relaxed);
    // Active since the pass began: not idle, rather than idle for almost 2^64 ms.
    const uint64_t idle = last_active > now ? 0 : now - last_active;
    const bool over = idle >= threshold;
    if (over) {
        list->entries[list->count++] = {client, generation};
        client->timed_out.store(1, std::memory_order_relaxed);
        ZEB_LOG(AGENT_LOG_WARN, "[超时待关闭] 加入关闭列表 → cid=%s | 不活跃%lu ms", id,
                static_cast<unsigned long>(idle));
    }
    ZEB_LOG(AGENT_LOG_DEBUG, "[超时计算] cid=%s | 不活跃=%lu ms | 阈值=%lu ms | 已超时? %s",
            id[0] == '\0' ? "空ID" : id, static_cast<unsigned long>(idle),
            static_cast<unsigned long>(threshold), over ? "是" : "否");
}

void scan_block(int block, uint64_t now, uint32_t default_timeout_ms, close_list *list) {
    if (g_client_mgr.blocks[block].used.load(std::memory_order_relaxed) == 0) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[超时扫描] block=%d 无客户端，跳过", block);
        return;
    }
    for (int i = 0; i < CLIENT_POOL_SIZE && !list->full(); ++i) {
        mqtt_client *client = client_pool_used_record(block, i);
        if (client != nullptr) judge(client, block, i, now, default_timeout_ms, list);
    }
}

void close_timed_out(const close_entry &entry) {
    char id[65] = "";
    {
        const client_ref held = client_acquire_generation(entry.client, entry.generation);
        if (held) client_copy_id(held.get(), id);
        ZEB_LOG(AGENT_LOG_WARN, "[超时执行关闭] 真实关闭 → cid=%s, state=%d, handle=0x%x", id,
                static_cast<int>(held ? held->state.load(std::memory_order_relaxed) : CLOSED),
                held ? held->handle.load(std::memory_order_relaxed) : NETIP_HANDLE_NONE);
        if (held) {
            held->timed_out.store(1, std::memory_order_relaxed);  // whatever it has sent since it was listed
            client_close(held.get());
        } else {
            log_closed_already(id);
        }
    }
    mqtt_stats_inc_timeout();
    ZEB_LOG(AGENT_LOG_WARN, "[超时完成] 客户端已关闭 → cid=%s", id);
}

}  // namespace

int client_clean_timeout(uint32_t default_timeout_ms) {
    const int blocks = g_client_mgr.block_count.load(std::memory_order_acquire);
    if (g_client_mgr.initialized.load(std::memory_order_relaxed) == 0 || blocks < 1) return 0;
    const uint64_t now = platform_mono_ms();
    int32_t cursor = s_scan_block.load(std::memory_order_relaxed);
    ZEB_LOG(AGENT_LOG_DEBUG, "[超时清理] 开始扫描 | 当前时间 ms = %lu | 扫描块起点 = %d",
            static_cast<unsigned long>(now), cursor);
    close_list list;
    // With fewer blocks than cycles a block is examined more than once and its silent clients are listed as
    // often; each entry counts one timeout: kept.
    for (int cycle = 0; cycle < CLIENT_SCAN_BLOCKS; ++cycle) {
        if (cursor >= blocks) cursor = 0;
        scan_block(cursor, now, default_timeout_ms, &list);
        ++cursor;
    }
    s_scan_block.store(cursor, std::memory_order_relaxed);
    ZEB_LOG(AGENT_LOG_DEBUG, "[超时清理] 本次扫描完成，待关闭客户端数量 = %d", list.count);
    for (int i = 0; i < list.count; ++i) close_timed_out(list.entries[i]);
    if (list.count == 0) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[超时清理] 本次无客户端需要清理");
        return 0;
    }
    ZEB_LOG(AGENT_LOG_INFO, "[超时清理] 本次成功清理 %d 个超时客户端", list.count);
    return list.count;
}

void client_clean_expired_sessions() {
    ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] 开始清理过期会话...");
    client_for_each_used([](mqtt_client *client) {
        const client_ref held =
            client_acquire_generation(client, client->generation.load(std::memory_order_relaxed));
        if (!held) return;
        const uint64_t deadline = held->session_expiry_deadline.load(std::memory_order_relaxed);
        if (deadline == 0 || deadline >= static_cast<uint64_t>(platform_wall_sec())) return;
        char id[65];
        client_copy_id(held.get(), id);
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] 清理过期会话: %s (deadline=%llu)", id,
                static_cast<unsigned long long>(deadline));
        persist_remove(id);
    });
    ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] 过期会话清理完成");
}

}  // namespace zeb

// Creating records, naming them and finding them again.
#include <cstdio>
#include <cstring>

#include "client/client_internal.h"
#include "client/client_names.h"
#include "log/agent_log.h"
#include "log/platform_time.h"
#include "sub/cid_hash.h"

namespace zeb {

namespace {

void copy_text(char *dst, std::size_t size, const char *src) {
    const std::size_t len = src == nullptr ? 0 : strnlen(src, size - 1);
    if (len != 0) memcpy(dst, src, len);
    memset(dst + len, 0, size - len);  // whole fields are copied to the application
}

// All that an earlier owner of the record may have left behind.
void reset_record(mqtt_client *client, netip_handle handle, const char *ip, uint16_t port,
                  mqtt_broker_instance *broker) {
    client->handle.store(handle, std::memory_order_relaxed);
    client->connection.store(client_connection_of(handle), std::memory_order_relaxed);
    {
        std::lock_guard lock(client->id_lock);
        client->client_id[0] = '\0';
        copy_text(client->ip, sizeof client->ip, ip);
        client->cid_hash.store(0, std::memory_order_relaxed);
    }
    client->port.store(port, std::memory_order_relaxed);
    client->inbound_qos2_msg_id.store(0, std::memory_order_relaxed);
    client->last_qos1_msg_id.store(0, std::memory_order_relaxed);
    client->session_present = 0;
    client->clean_session.store(0, std::memory_order_relaxed);
    client->disconnect_received.store(0, std::memory_order_relaxed);
    client->broker.store(broker, std::memory_order_relaxed);
    mqtt_codec_ctx_init(&client->codec);
    client->timed_out.store(0, std::memory_order_relaxed);
    client->keepalive.store(0, std::memory_order_relaxed);
    client->max_packet_size.store(g_default_max_packet_size.load(std::memory_order_relaxed),
                                  std::memory_order_relaxed);
    client->session_expiry_interval.store(0, std::memory_order_relaxed);
    client->session_expiry_deadline.store(0, std::memory_order_relaxed);
    client->closing.store(0, std::memory_order_relaxed);
    client->subs_settled.store(0, std::memory_order_relaxed);
    client->will_counted.store(0, std::memory_order_relaxed);
    client->full_ms.store(0, std::memory_order_relaxed);
}

// Topic and payload were freed when the record was released.
void reset_will(mqtt_client *client) {
    std::lock_guard lock(client->will_lock);
    client->will_msg_used.store(0, std::memory_order_relaxed);
    client->will_payload_len = 0;
    client->will_qos = 0;
    client->will_retain = 0;
    client->will_done.store(0, std::memory_order_relaxed);
    client->will_delay_sec.store(0, std::memory_order_relaxed);
    client->will_expiry_sec = 0;
    client->will_payload_format = 0;
    client->will_content_type[0] = '\0';
    client->will_response_topic[0] = '\0';
    client->will_correlation_len = 0;
    client->will_delay_deadline.store(0, std::memory_order_relaxed);
    client->will_delay_pending.store(0, std::memory_order_relaxed);
}

mqtt_client *take_record() {
    mqtt_client *client = client_pool_take();
    if (client == nullptr && client_pool_add_block()) client = client_pool_take();
    return client;
}

bool id_equals(const mqtt_client *client, uint32_t hash, const char *cid) {
    if (client->cid_hash.load(std::memory_order_relaxed) != hash) return false;
    std::lock_guard lock(client->id_lock);
    return strcmp(client->client_id, cid) == 0;
}

bool is_named(const mqtt_client *client, uint32_t hash, const char *cid) {
    return client->in_use.load(std::memory_order_relaxed) != 0 &&
           client->state.load(std::memory_order_acquire) != CLOSED && id_equals(client, hash, cid);
}

bool any_live_client_named(const mqtt_client *except, const char *cid) {
    const uint32_t hash = client_cid_hash(cid);
    bool found = false;
    client_for_each_used(
        [&](mqtt_client *other) { found = found || (other != except && is_named(other, hash, cid)); });
    return found;
}

// Two clients without an identifier in one second must not share one: the number counts up to the next free.
// Numbers above the last one given out need no search, whatever the direct-mapped table has forgotten.
void generate_id(const mqtt_client *client, char *out, std::size_t size) {
    static std::atomic<uint64_t> s_highest{0};
    uint64_t number = static_cast<uint64_t>(platform_wall_sec());
    for (;; ++number) {
        snprintf(out, size, "auto_%lu", static_cast<unsigned long>(number));
        const client_ref holder = client_acquire_by_cid(out);
        if (holder && holder.get() != client) continue;
        if (number > s_highest.load(std::memory_order_relaxed) || !any_live_client_named(client, out)) break;
    }
    uint64_t highest = s_highest.load(std::memory_order_relaxed);
    while (highest < number && !s_highest.compare_exchange_weak(highest, number, std::memory_order_relaxed)) {
    }
}

}  // namespace

uint32_t client_cid_hash(const char *cid) {
    return cid_hash(cid);
}

void client_reset_session(persist_session *session) {
    // The header lies in one page with the rest of the record. The lists fill 150 KiB: only what was used is
    // reset, and counts that are zero already are not written, so that an untouched page stays untouched.
    memset(session, 0, offsetof(persist_session, subs));
    if (session->sub_count != 0) session->sub_count = 0;
    if (session->msg_count != 0) session->msg_count = 0;
}

mqtt_client *client_create(netip_handle handle, const char *ip, uint16_t port, mqtt_broker_instance *broker) {
    const int max = g_mqtt_max_clients.load(std::memory_order_relaxed);
    if (g_client_mgr.client_count.load(std::memory_order_relaxed) >= max) {
        ZEB_LOG(AGENT_LOG_ERROR, "Client pool full, max=%d", max);
        return nullptr;
    }
    mqtt_client *client = take_record();
    if (client == nullptr) return nullptr;
    reset_record(client, handle, ip, port, broker);
    reset_will(client);
    {
        std::lock_guard lock(client->session_lock);
        client_reset_session(&client->session);
    }
    {
        std::lock_guard lock(client->send_lock);
        client->send_head.store(0, std::memory_order_relaxed);
        client->send_tail.store(0, std::memory_order_relaxed);
    }
    const uint64_t now = platform_mono_ms();
    client->last_active.store(now, std::memory_order_relaxed);
    client->connected_ms.store(now, std::memory_order_relaxed);
    client->in_use.store(1, std::memory_order_relaxed);
    client->state.store(CONNECTED, std::memory_order_release);  // last: now the record is complete
    ZEB_LOG(AGENT_LOG_DEBUG, "[MQTT5] Client init max_packet_size = %u (default), client=%s",
            client->max_packet_size.load(std::memory_order_relaxed), client->client_id);
    {
        std::lock_guard lock(client_handle_lock(handle));
        g_client_mgr.by_handle[handle % CLIENT_MAX].store(client, std::memory_order_release);
    }
    ZEB_LOG(AGENT_LOG_DEBUG, "Create client: handle=%u, ip=%s:%d, total=%d", handle, ip == nullptr ? "" : ip,
            port, g_client_mgr.client_count.load(std::memory_order_relaxed));
    return client;
}

void client_set_cid(mqtt_client *client, const char *cid) {
    if (client == nullptr || client->state.load(std::memory_order_relaxed) == CLOSED) return;
    char id[65] = "";
    if (cid == nullptr || cid[0] == '\0') {
        generate_id(client, id, sizeof id);
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT标准] 空ClientID，Broker自动生成: %s", id);
    } else {
        copy_text(id, 64, cid);  // one character less than the field holds: kept
    }
    const uint32_t hash = client_cid_hash(id);
    client_names_assign(client, id, hash);
    {
        std::lock_guard lock(client_cid_lock(hash));
        g_client_mgr.by_cid[hash % CLIENT_MAX].store(client, std::memory_order_release);
    }
    ZEB_LOG(AGENT_LOG_DEBUG, "Set client ID: handle=%u, cid=%s",
            client->handle.load(std::memory_order_relaxed), id);
}

namespace {

// Out of the network layer's hands: the handle may be another connection's before the slot is cleared.
bool has_left(const mqtt_client *client, uint32_t state) {
    return state == CLOSING && client->connection.load(std::memory_order_relaxed) !=
                                   client_connection_of(client->handle.load(std::memory_order_relaxed));
}

}  // namespace

// No lock: a record's memory stays, whoever pins it keeps it from changing hands, and what the slot has said
// is verified only then.
client_ref client_acquire_by_handle(netip_handle handle) {
    client_ref held;
    mqtt_client *client = g_client_mgr.by_handle[handle % CLIENT_MAX].load(std::memory_order_acquire);
    if (client == nullptr || !client_try_pin(client)) return {};
    held.adopt(client);
    const uint32_t state = client->state.load(std::memory_order_acquire);
    if (state == CLOSED || client->handle.load(std::memory_order_relaxed) != handle ||
        has_left(client, state))
        return {};
    return held;
}

client_ref client_acquire_by_cid(const char *cid) {
    if (cid == nullptr) return {};
    return client_acquire_by_cid(cid, client_cid_hash(cid));
}

client_ref client_acquire_by_cid(const char *cid, uint32_t hash) {
    if (cid[0] == '\0') return {};
    if (g_client_options.exact_lookup.load(std::memory_order_relaxed) != 0)
        return client_names_acquire(cid, hash);
    client_ref held;
    mqtt_client *client = g_client_mgr.by_cid[hash % CLIENT_MAX].load(std::memory_order_acquire);
    if (client == nullptr || !client_try_pin(client)) return {};
    held.adopt(client);
    if (!is_named(client, hash, cid)) return {};
    return held;
}

mqtt_client *client_find_by_handle(netip_handle handle) {
    return client_acquire_by_handle(handle).get();
}

mqtt_client *client_find_by_cid(const char *cid) {
    return client_acquire_by_cid(cid).get();
}

void client_clear_handle_slot(mqtt_client *client) {
    const uint32_t handle = client->handle.load(std::memory_order_relaxed);
    mqtt_client *expected = client;
    std::lock_guard lock(client_handle_lock(handle));
    g_client_mgr.by_handle[handle % CLIENT_MAX].compare_exchange_strong(expected, nullptr);
}

void client_forget_cid(mqtt_client *client) {
    client_names_remove(client);
    char id[65];
    client_copy_id(client, id);
    if (id[0] == '\0') return;
    const uint32_t hash = client_cid_hash(id);
    mqtt_client *expected = client;
    std::lock_guard lock(client_cid_lock(hash));
    g_client_mgr.by_cid[hash % CLIENT_MAX].compare_exchange_strong(expected, nullptr);
}

void client_update_active(mqtt_client *client) {
    if (client == nullptr || client->state.load(std::memory_order_relaxed) == CLOSED) return;
    client->timed_out.store(0, std::memory_order_relaxed);
    client->last_active.store(platform_mono_coarse_ms(), std::memory_order_relaxed);
}

int client_get_connected_count() {
    int count = 0;
    client_for_each_used([&](const mqtt_client *client) { count += client_is_online(client) ? 1 : 0; });
    return count;
}

int client_fill_id_list(char *buf, int size) {
    if (buf == nullptr || size < 1) return -1;
    buf[0] = '\0';
    int used = 0;
    const auto put = [&](char c) {
        if (used < size - 1) buf[used++] = c;
    };
    std::lock_guard lock(g_client_mgr.locks[0]);
    client_for_each_used([&](const mqtt_client *client) {
        if (used >= size - 1 || !client_is_online(client)) return;
        char id[65];
        client_copy_id(client, id);
        if (id[0] == '\0') return;
        if (used > 0) put(',');
        for (const char *c = id; *c != '\0'; ++c) put(*c);
    });
    buf[used] = '\0';
    return used;
}

void client_copy_id(const mqtt_client *client, char out[65]) {
    std::lock_guard lock(client->id_lock);
    memcpy(out, client->client_id, sizeof client->client_id);
}

void client_copy_ip(const mqtt_client *client, char out[64]) {
    std::lock_guard lock(client->id_lock);
    memcpy(out, client->ip, sizeof client->ip);
}

}  // namespace zeb

#include "client/client_mgr.h"

#include <cstdlib>
#include <new>

#include "client/client_internal.h"
#include "client/client_names.h"
#include "log/agent_log.h"
#include "qos/qos_reliable.h"

namespace zeb {

client_manager g_client_mgr;
std::atomic<int32_t> g_mqtt_max_clients{CLIENT_MAX};
std::atomic<uint32_t> g_default_max_packet_size{4096};
std::atomic<int32_t> g_will_delay_client_count{0};
client_options g_client_options;

std::mutex &client_handle_lock(uint32_t handle) {
    const uint32_t index = handle == NETIP_HANDLE_NONE ? 0 : (handle % CLIENT_MAX) / CLIENT_POOL_SIZE;
    return g_client_mgr.locks[index];
}

// Slot and lock of an identifier come from different moduli, so two identifiers may share a slot and not the
// lock: the slots are atomic, and a lookup verifies what it finds.
std::mutex &client_cid_lock(uint32_t hash) {
    return g_client_mgr.locks[hash % CLIENT_LOCK_COUNT];
}

namespace {

void clear_tables() {
    for (auto &slot : g_client_mgr.by_handle) slot.store(nullptr, std::memory_order_relaxed);
    for (auto &slot : g_client_mgr.by_cid) slot.store(nullptr, std::memory_order_relaxed);
    client_names_clear();
    for (auto &word : g_client_mgr.queued_blocks) word.store(0, std::memory_order_relaxed);
}

bool create_blocks(int count) {
    for (int i = 0; i < count; ++i) {
        if (!client_pool_add_block()) return false;
    }
    return true;
}

}  // namespace

int client_mgr_init(int max_clients) {
    if (max_clients < 1 || max_clients > CLIENT_MAX) {
        ZEB_LOG(AGENT_LOG_ERROR, "max_clients %d invalid, must <= %d", max_clients, CLIENT_MAX);
        return -1;
    }
    if (g_client_mgr.initialized.load(std::memory_order_relaxed) != 0) client_mgr_deinit();
    g_mqtt_max_clients.store(max_clients, std::memory_order_relaxed);
    g_client_mgr.client_count.store(0, std::memory_order_relaxed);
    g_will_delay_client_count.store(0, std::memory_order_relaxed);

    // Reserved at its full size: growing it never moves what another thread walks.
    constexpr int k_max_blocks = CLIENT_MAX / CLIENT_POOL_SIZE;
    g_client_mgr.blocks = static_cast<client_pool_block *>(calloc(k_max_blocks, sizeof(client_pool_block)));
    if (g_client_mgr.blocks == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "malloc pools failed");
        return -1;
    }
    if (!create_blocks((max_clients + CLIENT_POOL_SIZE - 1) / CLIENT_POOL_SIZE)) {
        client_pool_free_blocks();
        return -1;
    }
    clear_tables();
    g_client_mgr.initialized.store(1, std::memory_order_relaxed);
    if (qos_reliable_init() != 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "QoS reliable init failed");
        client_mgr_deinit();
        return -1;
    }
    mqtt_start_send_thread();
    if (!g_send_running.load(std::memory_order_relaxed)) {  // without it nothing would ever leave
        client_mgr_deinit();
        return -1;
    }
    ZEB_LOG(AGENT_LOG_INFO, "client_mgr_init success, dynamic max_clients = %d", max_clients);
    return 0;
}

void client_mgr_deinit() {
    mqtt_stop_send_thread();
    g_client_mgr.initialized.store(0, std::memory_order_relaxed);
    qos_reliable_destroy();
    client_pool_free_blocks();
    clear_tables();
    ZEB_LOG(AGENT_LOG_INFO, "Client manager deinit success (QoS module destroyed)");
}

}  // namespace zeb

#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "codec/mqtt_codec.h"

namespace zeb {

struct mqtt_client;

inline constexpr uint32_t QOS_MAX_PAYLOAD = 2048;
inline constexpr int QOS_MAX_PER_CLIENT = 1000;
inline constexpr uint32_t QOS_MAX_RETRY = 5;
inline constexpr uint32_t QOS_FIRST_INTERVAL_MS = 1000;
inline constexpr uint32_t QOS_MAX_INTERVAL_MS = 30000;
inline constexpr uint32_t QOS_SCAN_PERIOD_US = 100000;

struct qos_packet {
    uint16_t msg_id;
    uint8_t qos;  // 1 or 2
    char topic[256];
    uint8_t *payload;  // heap copy
    uint32_t payload_len;
    uint8_t dup;
    uint64_t last_send_ms;  // monotonic
    uint32_t retry_count;
    uint32_t retry_interval_ms;
    uint8_t qos2_state;  // 0 for QoS 1; 1, 2, 3 for QoS 2
    mqtt_client *client;
    uint64_t created_ms;  // monotonic
    uint32_t expiry_sec;  // 0 = none
    qos_packet *next;
};

extern qos_packet *g_pending_queue;  // newest first; guarded by g_queue_mutex
extern std::mutex g_queue_mutex;
extern pthread_t g_scan_thread;              // the thread of the latest init
extern std::atomic<uint8_t> g_scan_running;  // relaxed

int qos_reliable_init();  // 0 or -1
void qos_reliable_destroy();
int qos_reliable_add_packet(mqtt_client *client, uint16_t msg_id, uint8_t qos, const mqtt_publish_para *pub,
                            const uint8_t *payload, uint32_t payload_len);
int qos_reliable_handle_ack(mqtt_client *client, uint16_t msg_id, int packet_type);
void qos_reliable_set_packet_expiry(mqtt_client *client, uint16_t msg_id, uint32_t expiry_sec);
void qos_reliable_clean_client_packets(mqtt_client *client);
void qos_reliable_scan_queue();  // one pass
void *scan_queue_thread(void *);

// Both are called with g_queue_mutex held.
int send_packet(qos_packet *pkt);     // one retransmission: 0 or -1
void remove_packet(qos_packet *pkt);  // unlink and free

}  // namespace zeb

#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "codec/mqtt_codec.h"

// Every QoS 1 and 2 PUBLISH that was sent to a client, until the client acknowledges it: repeated on a
// doubling interval, dropped after five repetitions or when it expires, and the broker's side of the QoS 2
// exchange.
//
// Entered by the I/O thread (registrations, acknowledgements, cleans), by the threads that publish wills and
// the application's messages, and by the scan threads. Everything is guarded by g_queue_mutex, which is held
// while repetitions and answers are queued with client_send: g_queue_mutex before a client's locks, never the
// other way round.
//
// A node belongs to one connection. It is registered only while the connection is online and goes when the
// connection closes; before a repetition both are verified, so that no message reaches a record's next owner.
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
    uint8_t dup;            // what the next repetition carries: 0 for the first one
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

// Starts a scan thread; a running broker has two, one for each module that calls it. Calls beyond four are
// served by the threads that run already. Returns 0, or -1 when the thread cannot be created.
int qos_reliable_init();
// Ends and joins every scan thread and frees every message. Harmless without an init; takes up to one scan
// period.
void qos_reliable_destroy();

// Takes charge of a PUBLISH that the caller has sent. `pub` gives the topic; the payload is copied.
// Returns 0, or -1 when it is refused: bad argument, 1000 messages in flight to the client, no memory, or the
// client is not online.
int qos_reliable_add_packet(mqtt_client *client, uint16_t msg_id, uint8_t qos, const mqtt_publish_para *pub,
                            const uint8_t *payload, uint32_t payload_len);
// packet_type: MQTT_PKT_PUBACK, PUBREC, PUBREL or PUBCOMP. Returns 0 also when the packet does not fit the
// message's state; -1 for an unknown message, a bad argument or an answer that cannot be encoded.
int qos_reliable_handle_ack(mqtt_client *client, uint16_t msg_id, int packet_type);
void qos_reliable_set_packet_expiry(mqtt_client *client, uint16_t msg_id, uint32_t expiry_sec);
void qos_reliable_clean_client_packets(mqtt_client *client);
// The same without a log line, for a connection that has just left the online states.
void qos_reliable_drop_client(mqtt_client *client);

void qos_reliable_scan_queue();  // one pass
void *scan_queue_thread(void *);

// Both are called with g_queue_mutex held.
int send_packet(qos_packet *pkt);     // one retransmission: 0 or -1
void remove_packet(qos_packet *pkt);  // unlink and free; pkt is one of the queue's

}  // namespace zeb

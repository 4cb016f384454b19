#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "codec/mqtt_codec.h"
#include "netip/netip.h"
#include "persist/persist.h"
#include "sdk/zeb_sdk_mqtt_broker.h"

namespace zeb {

inline constexpr int CLIENT_MAX = 11000;
inline constexpr int CLIENT_POOL_SIZE = 100;
inline constexpr int CLIENT_LOCK_COUNT = 111;
inline constexpr int CLIENT_SEND_RING_SIZE = 100;
inline constexpr int CLIENT_SEND_MAX = 4096;
inline constexpr int CLIENT_WILL_PAYLOAD_MAX = 2048;
inline constexpr int CLIENT_CLOSE_LIST_MAX = 256;
inline constexpr int CLIENT_SCAN_BLOCKS = 10;
inline constexpr uint64_t CLIENT_WILL_FORCE_MS = 30000;

enum client_state : uint32_t { CONNECTED = 1, LOGINED = 2, CLOSING = 3, CLOSED = 4 };

// The packets of a ring lie close together behind its slots, and not each in a place of 4 KiB: the ring of a
// client that keeps up is one page, and what goes out together is one piece of memory.
struct client_send_slot {
    uint8_t *data;
    uint32_t len;
    uint8_t ready;
};
inline constexpr std::size_t CLIENT_SEND_RING_BYTES =
    (sizeof(client_send_slot) + CLIENT_SEND_MAX) * CLIENT_SEND_RING_SIZE;

struct mqtt_client {
    std::atomic<uint32_t> handle;  // NETIP_HANDLE_NONE once released
    char client_id[65];
    char ip[64];
    std::atomic<uint16_t> port;
    std::atomic<uint32_t> state;        // client_state
    std::atomic<uint64_t> last_active;  // monotonic milliseconds
    std::atomic<uint16_t> inbound_qos2_msg_id;
    std::atomic<uint16_t> last_qos1_msg_id;
    uint8_t session_present;
    std::atomic<uint8_t> clean_session;
    std::atomic<uint8_t> disconnect_received;
    std::atomic<mqtt_broker_instance *> broker;
    mqtt_codec_ctx codec;
    std::atomic<client_send_slot *> send_ring;  // written under send_lock
    std::atomic<uint8_t> send_head;             // written under send_lock
    std::atomic<uint8_t> send_tail;             // written under send_lock
    std::mutex send_lock;
    std::atomic<uint8_t> in_use;
    std::atomic<uint8_t> timed_out;
    std::atomic<uint32_t> keepalive;  // milliseconds
    std::atomic<uint8_t> will_msg_used;
    char *will_topic;       // heap copy, under will_lock
    uint8_t *will_payload;  // heap copy, under will_lock
    uint32_t will_payload_len;
    uint8_t will_qos;
    uint8_t will_retain;
    std::atomic<uint8_t> will_done;
    std::mutex will_lock;  // all will fields
    std::atomic<uint32_t> max_packet_size;
    std::atomic<uint32_t> session_expiry_interval;  // seconds
    std::atomic<uint64_t> session_expiry_deadline;  // wall-clock seconds, 0 = none
    std::atomic<uint32_t> will_delay_sec;
    uint32_t will_expiry_sec;
    uint8_t will_payload_format;
    char will_content_type[64];
    char will_response_topic[257];
    uint8_t will_correlation_data[256];
    uint32_t will_correlation_len;
    std::atomic<uint64_t> will_delay_deadline;  // monotonic milliseconds
    std::atomic<uint8_t> will_delay_pending;
    persist_session session;
    std::mutex session_lock;             // session
    std::atomic<uint64_t> connected_ms;  // monotonic milliseconds of client_create

    // Private to the client manager.
    std::atomic<uint32_t> life;         // pins and the two life bits, see client_ref
    std::atomic<uint64_t> generation;   // which connection the record serves; a number is never used twice
    std::atomic<uint32_t> connection;   // the network layer's generation of the handle
    std::atomic<uint32_t> cid_hash;     // client_cid_hash(client_id): a lookup compares it before the text
    std::atomic<uint8_t> closing;       // 1 while a thread runs client_close on the record
    std::atomic<uint8_t> subs_settled;  // 1 once the packet handler has decided about its subscriptions
    std::atomic<uint8_t> will_counted;  // 1 while g_will_delay_client_count includes the record
    mutable std::mutex id_lock;         // client_id and ip, against readers on other threads
    int32_t pool_index;                 // position over all blocks, fixed when the block is created
    int32_t inflight;                   // nodes of the record in the QoS list; guarded by g_queue_mutex
    mqtt_client *next_named;            // the exact index of names, and whether the record is in it
    uint8_t named;
    std::atomic<uint64_t> full_ms;  // when its ring and its socket were last found full; monotonic, coarse
};

struct client_pool_block {
    mqtt_client *records;                             // CLIENT_POOL_SIZE of them
    std::atomic<uint8_t> used_map[CLIENT_POOL_SIZE];  // 1 = slot allocated
    std::atomic<int32_t> used;
    int32_t capacity;                 // always CLIENT_POOL_SIZE
    uint8_t born[CLIENT_POOL_SIZE];   // 1 once the record was used and its mutexes exist
    std::atomic<uint64_t> queued[2];  // a bit per record with packets for the send thread
    std::atomic<int32_t> wills;       // records whose will_counted is set
};

struct client_manager {
    client_pool_block *blocks;
    std::atomic<int32_t> block_count;
    std::atomic<int32_t> capacity;  // block_count * CLIENT_POOL_SIZE
    std::atomic<int32_t> client_count;
    std::atomic<mqtt_client *> by_handle[CLIENT_MAX];  // slot: handle mod CLIENT_MAX
    std::atomic<mqtt_client *> by_cid[CLIENT_MAX];     // slot: client_cid_hash mod CLIENT_MAX
    std::mutex locks[CLIENT_LOCK_COUNT];
    std::atomic<uint8_t> initialized;
    std::atomic<uint64_t> queued_blocks[2];  // private: a bit per block in which a record's queued bit is set
};

// Beyond the fixed behaviour, off unless the embedding program asks. Relaxed; written while nobody is
// connected.
struct client_options {
    std::atomic<uint8_t> exact_lookup{0};  // identifiers are looked up in the exact index, not in by_cid
    std::atomic<uint8_t> low_latency{0};   // packets leave at once and not with the send thread's next beat
};

extern client_options g_client_options;
extern client_manager g_client_mgr;
extern std::atomic<int32_t> g_mqtt_max_clients;          // initially 11000
extern std::atomic<uint32_t> g_default_max_packet_size;  // initially 4096
extern std::atomic<int32_t> g_will_delay_client_count;
extern std::atomic<bool> g_send_running;
extern pthread_t g_send_thread;

int client_mgr_init(int max_clients);  // 0 or -1
void client_mgr_deinit();              // harmless when not initialised

// Table and identity.
mqtt_client *client_create(netip_handle handle, const char *ip, uint16_t port, mqtt_broker_instance *broker);
uint32_t client_cid_hash(const char *cid);
void client_set_cid(mqtt_client *client, const char *cid);
mqtt_client *client_find_by_handle(netip_handle handle);
mqtt_client *client_find_by_cid(const char *cid);
void client_update_active(mqtt_client *client);
int client_get_connected_count();
int client_fill_id_list(char *buf, int size);
void client_copy_id(const mqtt_client *client, char out[65]);
void client_copy_ip(const mqtt_client *client, char out[64]);
void client_pool_release(mqtt_client *client);  // the one way back to the pool

// Holds a record: while a client_ref to it lives, the record keeps serving the same connection. The
// connection may end meanwhile (state says so, client_send then refuses), but the record is handed to nobody
// else before the last holder lets go. Movable, not copyable; costs two atomic operations and takes no lock.
class client_ref {
  public:
    client_ref() = default;
    explicit client_ref(mqtt_client *client);  // pins a record that the caller knows to be allocated
    client_ref(client_ref &&other) noexcept : client_(other.client_) { other.client_ = nullptr; }
    client_ref &operator=(client_ref &&other) noexcept {
        if (this != &other) {
            reset();
            client_ = other.client_;
            other.client_ = nullptr;
        }
        return *this;
    }
    client_ref(const client_ref &) = delete;
    client_ref &operator=(const client_ref &) = delete;
    ~client_ref() { reset(); }

    void reset();
    mqtt_client *get() const { return client_; }
    mqtt_client *operator->() const { return client_; }
    explicit operator bool() const { return client_ != nullptr; }

    // Takes over a pin that the caller has already set.
    void adopt(mqtt_client *client) {
        reset();
        client_ = client;
    }

  private:
    mqtt_client *client_ = nullptr;
};

// client_find_by_handle and client_find_by_cid for callers that use the record beyond the lookup.
client_ref client_acquire_by_handle(netip_handle handle);
client_ref client_acquire_by_cid(const char *cid);
client_ref client_acquire_by_cid(const char *cid, uint32_t hash);  // for who knows its client_cid_hash

// CONNECTED or LOGINED.
inline bool client_is_online(const mqtt_client *client) {
    const uint32_t state = client->state.load(std::memory_order_relaxed);
    return state == CONNECTED || state == LOGINED;
}

// Empties a session record without touching the 150 KiB of its lists.
void client_reset_session(persist_session *session);

// Send path.
int client_send(mqtt_client *client, const uint8_t *data, int len);  // 0 queued, -1 dropped
// Sends like client_send, one packet after the other, but bumps the shared counters once.
class client_send_series {
  public:
    client_send_series() = default;
    ~client_send_series();
    client_send_series(const client_send_series &) = delete;
    client_send_series &operator=(const client_send_series &) = delete;
    int send(mqtt_client *client, const uint8_t *data, int len);

  private:
    uint32_t queued_ = 0;
};
void client_send_flush(mqtt_client *client);
// Hands what the records queue to their sockets. The send thread does so with every beat; in low-latency mode
// also the I/O threads, each after the packets it has handled. Any thread.
void client_flush_queued();
// The socket of a connection that was full takes bytes again. Any thread.
void client_socket_writable(netip_handle handle);
void mqtt_start_send_thread();
void mqtt_stop_send_thread();
void *send_thread_proc(void *);

// Closing, keep-alive, session expiry.
void client_close(mqtt_client *client);
int client_clean_timeout(uint32_t default_timeout_ms);
void client_set_keepalive(mqtt_client *client, uint32_t keepalive_seconds);
void client_clean_expired_sessions();

// Will.
void client_set_will_msg(mqtt_client *client, const char *topic, const uint8_t *payload, uint32_t payload_len,
                         uint8_t qos, uint8_t retain);
void client_set_will_enhance(mqtt_client *client, uint32_t will_delay_sec, uint32_t will_expiry_sec,
                             uint8_t payload_format, const char *content_type, const char *response_topic,
                             const uint8_t *correlation_data, uint32_t correlation_len);
void client_will_delay_scan();
// The scan as housekeeping runs it: only over blocks in which a record waits for its will.
void client_will_delay_pass();
// A client that is back in time gets no will: cancels what earlier connections of its identifier still have
// pending. `successor` is the new connection's record.
void client_cancel_pending_wills(const char *cid, const mqtt_client *successor);

}  // namespace zeb

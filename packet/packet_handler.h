#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "client/client_mgr.h"
#include "sub/sub_mgr.h"

namespace zeb {

extern std::atomic<int32_t> g_rr_counter;  // rotation over shared groups; relaxed
extern uint32_t msgid_seed;                // guarded by msgid_mutex
extern std::mutex msgid_mutex;

// What an embedder may ask for beyond the fixed behaviour; all off at first. Written while the network is
// down, read relaxed by any thread.
struct packet_options {
    std::atomic<uint8_t> require_connect{0};   // a packet before an accepted CONNECT closes its connection
    std::atomic<uint8_t> level_by_connect{0};  // CONNECT alone sets the protocol level
};
extern packet_options g_packet_options;

int packet_handler_init();  // 0 or -1
void packet_handler_deinit();

// Network events and the dispatcher.
int mqtt_netip_event_cb(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len, uint32_t reason,
                        uint32_t error, void *arg);
void on_netip_send_ready(netip_handle handle);
void packet_dispatch(mqtt_client *client, const uint8_t *data, int32_t len);
void packet_handler_remove_client_subs(const char *client_id, uint8_t clean_session);

// Routing.
void shared_sub_mark_selected(const mqtt_subscription *subs, int count, uint8_t *selected);
void send_retained_msg_to_client(mqtt_client *client, const char *topic_filter);
void packet_handler_broadcast_msg(const uint8_t *msg, int len, uint8_t is_will);

// Wills.
int packet_send_will_message(mqtt_client *client);  // 0 sent, -1 not sent
void packet_start_will_delay(mqtt_client *client);
void packet_cancel_will(mqtt_client *client);

// Services.
void packet_handler_broker_publish(const char *topic, const uint8_t *payload, int len, uint32_t qos,
                                   uint8_t retain, uint32_t expiry_seconds);
void packet_handler_restore_offline_msgs(mqtt_client *client);
void packet_handler_send_disconnect(mqtt_client *client, uint8_t reason_code);

}  // namespace zeb

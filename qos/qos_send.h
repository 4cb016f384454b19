#pragma once

#include <cstdint>

namespace zeb {

struct mqtt_client;

// A client's identifier for a log line, "null" for none. Built only when the line is written.
struct qos_client_name {
    explicit qos_client_name(const mqtt_client *client);
    char text[65];
};

// Queues PUBREL or PUBCOMP; false when it cannot be encoded. Called with g_queue_mutex held.
bool qos_send_answer(mqtt_client *client, int packet_type, uint16_t msg_id);

}  // namespace zeb

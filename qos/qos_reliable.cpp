// Nothing is retransmitted yet: a message in flight is sent once.
#include "qos/qos_reliable.h"

namespace zeb {

int qos_reliable_init() {
    return 0;
}

void qos_reliable_destroy() {}

int qos_reliable_add_packet(mqtt_client *, uint16_t, uint8_t, const mqtt_publish_para *, const uint8_t *,
                            uint32_t) {
    return 0;
}

int qos_reliable_handle_ack(mqtt_client *, uint16_t, int) {
    return 0;
}

void qos_reliable_set_packet_expiry(mqtt_client *, uint16_t, uint32_t) {}

void qos_reliable_clean_client_packets(mqtt_client *) {}

}  // namespace zeb

#pragma once

#include <cstdint>

#include "sdk/zeb_sdk_mqtt_broker.h"

namespace zeb {

struct mqtt_client;

// 1 = accept; also when the client, its instance or the callback is absent.
int broker_fire_auth(const mqtt_client *client, const mqtt_connect_para *connect, const char *username,
                     const char *password);
int broker_fire_acl(const mqtt_client *client, const char *topic, uint8_t action);
void broker_fire_event(const mqtt_client *client, uint32_t event, const char *topic, int qos);

// Body of the housekeeping thread: returns once b->running is found cleared.
void broker_thread_entry(mqtt_broker_instance *b);

}  // namespace zeb

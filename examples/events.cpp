// Prints what clients do, and tells it to other clients: the callback publishes each event under "events/",
// the last one of each kind as a retained message.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "zeb_sdk_mqtt_broker.h"

namespace {

constexpr const char *k_names[] = {"connect", "disconnect", "publish", "subscribe", "unsubscribe", "will"};

// Runs on the thread that reads from all clients, or on the housekeeping thread: it must not wait for
// anything. What the broker itself publishes raises no event, so publishing from here does not call it again.
int on_event(mqtt_broker_instance *b, std::uint32_t event, const char *json) {
    if (event >= sizeof k_names / sizeof *k_names) return 0;  // a later version may know more
    std::printf("%s %s\n", k_names[event], json);
    std::fflush(stdout);

    char topic[32];
    std::snprintf(topic, sizeof topic, "events/%s", k_names[event]);
    const auto *payload = reinterpret_cast<const std::uint8_t *>(json);
    const int len = static_cast<int>(std::strlen(json));
    const int result = zeb_sdk_mqtt_broker_publish(b, topic, payload, len, 0, 1, 0);
    if (result != MQTT_BROKER_OK)
        std::fprintf(stderr, "%s: %s\n", topic, zeb_sdk_mqtt_broker_error_str(result));
    return 0;
}

}  // namespace

int main() {
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    if (b == nullptr) return 1;
    zeb_sdk_mqtt_broker_register_event_callback(b, on_event);
    int result = zeb_sdk_mqtt_broker_init(b);
    if (result == MQTT_BROKER_OK) result = zeb_sdk_mqtt_broker_start(b, 1883, 1000);
    if (result == MQTT_BROKER_OK) {
        std::puts("waiting for events, Enter ends");
        std::fflush(stdout);
        (void)std::getchar();
        (void)zeb_sdk_mqtt_broker_stop(b);
    } else {
        std::fprintf(stderr, "no broker: %s\n", zeb_sdk_mqtt_broker_error_str(result));
    }
    zeb_sdk_mqtt_broker_deinit(b);
    zeb_sdk_mqtt_broker_destroy(b);
    return result == MQTT_BROKER_OK ? 0 : 1;
}

/* The smallest embedding: a broker that runs until Enter is pressed. */
#include <stdio.h>

#include "zeb_sdk_mqtt_broker.h"

int main(void) {
    mqtt_broker_instance *broker = zeb_sdk_mqtt_broker_create();
    if (broker == NULL) return 1;
    int result = zeb_sdk_mqtt_broker_init(broker);
    if (result == MQTT_BROKER_OK) result = zeb_sdk_mqtt_broker_start(broker, 1883, 1000);
    if (result == MQTT_BROKER_OK) {
        (void)puts("MQTT on port 1883, Enter ends");
        (void)getchar();
        (void)zeb_sdk_mqtt_broker_stop(broker);
    } else {
        (void)fprintf(stderr, "no broker: %s\n", zeb_sdk_mqtt_broker_error_str(result));
    }
    zeb_sdk_mqtt_broker_deinit(broker);
    zeb_sdk_mqtt_broker_destroy(broker);
    return result == MQTT_BROKER_OK ? 0 : 1;
}

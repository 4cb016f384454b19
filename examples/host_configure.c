/* Every setter, option and callback of the library, as the command line asks for them. */
#include <stdio.h>
#include <string.h>

#include "host.h"

/* What every program that faces real clients should switch on. */
static const struct {
    mqtt_broker_option option;
    int value;
} k_modern[] = {
    {MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1},  {MQTT_BROKER_OPTION_CONNECT_TIMEOUT, 30},
    {MQTT_BROKER_OPTION_LEVEL_BY_CONNECT, 1}, {MQTT_BROKER_OPTION_LOW_LATENCY, 1},
    {MQTT_BROKER_OPTION_EXACT_LOOKUP, 1},
};

static const char *const k_event_names[] = {"connect",   "disconnect",  "publish",
                                            "subscribe", "unsubscribe", "will"};

static int on_auth(mqtt_broker_instance *b, const mqtt_connect_para *connect, const char *username,
                   const char *password) {
    (void)b;
    (void)connect;
    (void)password;
    return username == NULL || strcmp(username, g_options.deny_user) != 0;
}

static int on_acl(mqtt_broker_instance *b, const char *client_id, const char *topic, uint8_t action) {
    (void)b;
    (void)client_id;
    (void)action;
    return strncmp(topic, g_options.deny_topic, strlen(g_options.deny_topic)) != 0;
}

static int on_event(mqtt_broker_instance *b, uint32_t event, const char *json) {
    const size_t known = sizeof k_event_names / sizeof k_event_names[0];
    (void)b;
    (void)printf("zeb_mqtt_host: event %s %s\n", event < known ? k_event_names[event] : "unknown", json);
    (void)fflush(stdout);
    return 0;
}

static int set_options(mqtt_broker_instance *b) {
    for (size_t i = 0; !g_options.classic && i < sizeof k_modern / sizeof k_modern[0]; ++i) {
        if (report("option", zeb_sdk_mqtt_broker_set_option(b, k_modern[i].option, k_modern[i].value)) != 0)
            return -1;
    }
    return 0;
}

int configure(mqtt_broker_instance *b) {
    (void)snprintf(b->data_dir, sizeof b->data_dir, "%s", g_options.data_dir);
    if (g_options.print_events) zeb_sdk_mqtt_broker_register_event_callback(b, on_event);
    if (g_options.deny_user != NULL) zeb_sdk_mqtt_broker_register_auth_callback(b, on_auth);
    if (g_options.deny_topic != NULL) zeb_sdk_mqtt_broker_register_acl_callback(b, on_acl);
    if (report("keep-alive timeout",
               zeb_sdk_mqtt_broker_set_keepalive_timeout(b, g_options.keepalive_timeout)) != 0)
        return -1;
    if (report("maximum packet size",
               zeb_sdk_mqtt_broker_set_max_packet_size(b, g_options.max_packet_size)) != 0)
        return -1;
    return set_options(b);
}

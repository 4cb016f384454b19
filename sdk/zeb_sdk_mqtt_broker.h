#ifndef ZEB_SDK_MQTT_BROKER_H
#define ZEB_SDK_MQTT_BROKER_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The library is built with hidden visibility; exactly the functions below are exported. */
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* Result of every public function that returns int. */
typedef enum mqtt_broker_error {
    MQTT_BROKER_OK = 0,
    MQTT_BROKER_ERR_INIT = -1,
    MQTT_BROKER_ERR_PARAM = -2,
    MQTT_BROKER_ERR_RESOURCE = -3,
    MQTT_BROKER_ERR_NOT_RUNNING = -4,
    MQTT_BROKER_ERR_NOT_FOUND = -5,
    MQTT_BROKER_ERR_DENIED = -6,
    MQTT_BROKER_ERR_BUSY = -7,
    MQTT_BROKER_ERR_TIMEOUT = -8
} mqtt_broker_error;

/* Event kinds passed to the event callback. */
typedef enum mqtt_broker_event {
    MQTT_BROKER_EVENT_CONNECT = 0,
    MQTT_BROKER_EVENT_DISCONNECT = 1,
    MQTT_BROKER_EVENT_PUBLISH = 2,
    MQTT_BROKER_EVENT_SUBSCRIBE = 3,
    MQTT_BROKER_EVENT_UNSUBSCRIBE = 4,
    MQTT_BROKER_EVENT_WILL = 5
} mqtt_broker_event;

/* A decoded CONNECT. All texts are NUL-terminated. */
typedef struct mqtt_connect_para {
    char client_id[65];
    uint8_t clean_start;
    uint16_t keep_alive; /* seconds */
    uint8_t will_flag;
    uint32_t will_qos;
    uint8_t will_retain;
    char will_topic[257];
    uint8_t will_payload[2048]; /* not terminated */
    uint32_t will_payload_len;
    uint32_t will_delay_interval;      /* seconds */
    uint32_t will_msg_expiry_interval; /* seconds */
    uint8_t username_flag;
    char username[65];
    uint32_t username_len;
    uint8_t password_flag;
    char password[65];
    uint32_t password_len;
    uint32_t session_expiry_interval;
    uint16_t receive_maximum;
    uint16_t topic_alias_maximum;
    uint8_t request_response_info;
    uint8_t request_problem_info;
    uint32_t maximum_packet_size;
} mqtt_connect_para;

typedef struct mqtt_broker_instance mqtt_broker_instance;

/* json: {"clientId":"...","topic":"...","qos":n}; the result is ignored. */
typedef int (*mqtt_broker_event_cb)(mqtt_broker_instance *b, uint32_t event, const char *json);
/* nonzero accepts */
typedef int (*mqtt_broker_auth_cb)(mqtt_broker_instance *b, const mqtt_connect_para *connect,
                                   const char *username, const char *password);
/* action: 0 subscribe, nonzero publish; nonzero accepts */
typedef int (*mqtt_broker_acl_cb)(mqtt_broker_instance *b, const char *client_id, const char *topic,
                                  uint8_t action);

struct mqtt_broker_instance {
    uint8_t running;            /* 0 or 1 */
    uint32_t keepalive_timeout; /* seconds, 1..3600, default 300 */
    uint32_t max_packet_size;   /* bytes, 256..10485760, default 4096 */
    mqtt_broker_event_cb event_cb;
    mqtt_broker_auth_cb auth_cb;
    mqtt_broker_acl_cb acl_cb;
    int32_t port;            /* default 1883 */
    int32_t max_clients;     /* default 5000 */
    char data_dir[256];      /* default "./broker_data" */
    pthread_t broker_thread; /* 0 when none */
};

typedef struct mqtt_broker_client_info {
    char client_id[128];
    char ip[64];
    uint16_t port;
    uint16_t keepalive; /* seconds */
    uint8_t online;     /* 0 or 1 */
    uint32_t connected_seconds;
} mqtt_broker_client_info;

typedef struct mqtt_broker_stats {
    int online;
    uint32_t total_messages;
    uint32_t total_subscriptions;
    uint32_t uptime_seconds;
} mqtt_broker_stats;

/* Lifecycle. */
mqtt_broker_instance *zeb_sdk_mqtt_broker_create(void);
int zeb_sdk_mqtt_broker_init(mqtt_broker_instance *b);
int zeb_sdk_mqtt_broker_start(mqtt_broker_instance *b, int port, int max_clients);
int zeb_sdk_mqtt_broker_stop(mqtt_broker_instance *b);
void zeb_sdk_mqtt_broker_deinit(mqtt_broker_instance *b);
void zeb_sdk_mqtt_broker_destroy(mqtt_broker_instance *b);
int zeb_sdk_mqtt_broker_is_running(mqtt_broker_instance *b);

/* Configuration. */
int zeb_sdk_mqtt_broker_set_log_level(mqtt_broker_instance *b, int level);
int zeb_sdk_mqtt_broker_set_keepalive_timeout(mqtt_broker_instance *b, int seconds);
int zeb_sdk_mqtt_broker_set_max_packet_size(mqtt_broker_instance *b, int bytes);
void zeb_sdk_mqtt_broker_register_event_callback(mqtt_broker_instance *b, mqtt_broker_event_cb cb);
void zeb_sdk_mqtt_broker_register_auth_callback(mqtt_broker_instance *b, mqtt_broker_auth_cb cb);
void zeb_sdk_mqtt_broker_register_acl_callback(mqtt_broker_instance *b, mqtt_broker_acl_cb cb);

/* Query and control. */
int zeb_sdk_mqtt_broker_get_online_count(mqtt_broker_instance *b);
int zeb_sdk_mqtt_broker_get_client_id_list(mqtt_broker_instance *b, char *buf, int size);
int zeb_sdk_mqtt_broker_get_client_info(mqtt_broker_instance *b, const char *client_id,
                                        mqtt_broker_client_info *out);
int zeb_sdk_mqtt_broker_kick_client(mqtt_broker_instance *b, const char *client_id);
int zeb_sdk_mqtt_broker_publish(mqtt_broker_instance *b, const char *topic, const uint8_t *payload, int len,
                                uint32_t qos, int retain, uint32_t expiry_seconds);
int zeb_sdk_mqtt_broker_clear_retain(mqtt_broker_instance *b, const char *topic);
int zeb_sdk_mqtt_broker_get_retain_topic_list(mqtt_broker_instance *b, char *buf, int size);
int zeb_sdk_mqtt_broker_get_stats(mqtt_broker_instance *b, mqtt_broker_stats *out);

const char *zeb_sdk_mqtt_broker_version(void); /* "V2.0.0" */
const char *zeb_sdk_mqtt_broker_error_str(int code);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif

/**
 * @file
 * The public interface of the zeb MQTT broker, in plain C.
 *
 * Life cycle: create, (setters, callbacks), init, start, ..., stop, deinit, destroy, from one thread. The
 * modules behind the instance are singletons: one running broker per process. A data directory other than the
 * default is written into data_dir between create and init; all other fields of the record are read only for
 * applications.
 *
 * Callbacks. NULL (the default) means: accept, allow, tell nobody. They run on threads of the library,
 * several may run at once, and no lock of the library is held meanwhile: every function of this header but
 * init, start, stop, deinit and destroy may be called from inside. A callback that blocks holds up the
 * traffic of all clients. All pointers that it is given are valid only until it returns.
 */
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

/** Result of every public function that returns int. */
typedef enum mqtt_broker_error {
    MQTT_BROKER_OK = 0,               /**< done */
    MQTT_BROKER_ERR_INIT = -1,        /**< initialisation failed; reserved, no function returns it */
    MQTT_BROKER_ERR_PARAM = -2,       /**< an argument is NULL or out of its range */
    MQTT_BROKER_ERR_RESOURCE = -3,    /**< no memory, too many clients, or the port is taken */
    MQTT_BROKER_ERR_NOT_RUNNING = -4, /**< reserved, no function returns it */
    MQTT_BROKER_ERR_NOT_FOUND = -5,   /**< no such client or retained message */
    MQTT_BROKER_ERR_DENIED = -6,      /**< the client belongs to another instance */
    MQTT_BROKER_ERR_BUSY = -7,        /**< not while running, or not from a callback */
    MQTT_BROKER_ERR_TIMEOUT = -8      /**< reserved, no function returns it */
} mqtt_broker_error;

/** Event kinds passed to the event callback. */
typedef enum mqtt_broker_event {
    MQTT_BROKER_EVENT_CONNECT = 0,     /**< a CONNECT was accepted */
    MQTT_BROKER_EVENT_DISCONNECT = 1,  /**< a client sent DISCONNECT; a lost connection raises no event */
    MQTT_BROKER_EVENT_PUBLISH = 2,     /**< a client published; topic and QoS are those of its packet */
    MQTT_BROKER_EVENT_SUBSCRIBE = 3,   /**< a filter was granted; topic is the filter, QoS what was granted */
    MQTT_BROKER_EVENT_UNSUBSCRIBE = 4, /**< a filter was given up; topic is the filter */
    MQTT_BROKER_EVENT_WILL = 5         /**< the will of a lost client was published */
} mqtt_broker_event;

/** What goes beyond the fixed behaviour, for zeb_sdk_mqtt_broker_set_option; each is 0 (off) by default. */
typedef enum mqtt_broker_option {
    /** 0 or 1. A packet other than CONNECT before an accepted CONNECT closes its connection, unanswered. */
    MQTT_BROKER_OPTION_REQUIRE_CONNECT = 0,
    /** 0 or 1..3600, seconds. A connection, TCP or UDP, on which no CONNECT has been accepted for so long is
     * closed; otherwise silent connections hold their place for ever. */
    MQTT_BROKER_OPTION_CONNECT_TIMEOUT = 1,
    /** 0 or 1. The protocol level that CONNECT set stays for the life of the connection, and a PUBLISH has a
     * property block exactly at level 5; otherwise packets that look like the other level change it. */
    MQTT_BROKER_OPTION_LEVEL_BY_CONNECT = 2,
    /** 0 or 1. Packets leave at once and not with a beat of 10 ms: what a client's packets have queued right
     * after they are handled, what application threads publish as soon as the send thread wakes. A client
     * whose queue is full is sent to before a packet for it is given up, and datagrams are read as they come,
     * also without TCP traffic. The order for each client, limits and bytes stay what they are. */
    MQTT_BROKER_OPTION_LOW_LATENCY = 3,
    /** 0 or 1. Every live client is found by its identifier; otherwise of two whose identifiers share one of
     * 11000 places the earlier gets no messages while the later is there. Of several connections with one
     * identifier the newest is found, and when it ends the next newest. */
    MQTT_BROKER_OPTION_EXACT_LOOKUP = 4,
    MQTT_BROKER_OPTION_FORCE_INT = 0x7fffffff /**< no option: gives the type the range of int */
} mqtt_broker_option;

/** Room in the instance record for the values of this many options. */
#define MQTT_BROKER_OPTION_CAPACITY 16

/** A decoded CONNECT. All texts are NUL-terminated. */
typedef struct mqtt_connect_para {
    char client_id[65];                /**< empty when the client sent none */
    uint8_t clean_start;               /**< Clean Session or Clean Start, 0 or 1 */
    uint16_t keep_alive;               /**< seconds, 0 for none */
    uint8_t will_flag;                 /**< 1 when there is a will, else 0 */
    uint32_t will_qos;                 /**< 0..2 */
    uint8_t will_retain;               /**< 0 or 1 */
    char will_topic[257];              /**< up to 256 bytes */
    uint8_t will_payload[2048];        /**< not terminated */
    uint32_t will_payload_len;         /**< bytes of will_payload */
    uint32_t will_delay_interval;      /**< seconds, level 5 only */
    uint32_t will_msg_expiry_interval; /**< seconds, level 5 only */
    uint8_t username_flag;             /**< 1 when the client sent a user name */
    char username[65];                 /**< up to 64 bytes */
    uint32_t username_len;             /**< bytes of username */
    uint8_t password_flag;             /**< 1 when the client sent a password */
    char password[65];                 /**< up to 64 bytes */
    uint32_t password_len;             /**< bytes of password */
    uint32_t session_expiry_interval;  /**< seconds, level 5 only */
    uint16_t receive_maximum;          /**< messages, level 5 only; not looked at */
    uint16_t topic_alias_maximum;      /**< level 5 only; not looked at */
    uint8_t request_response_info;     /**< level 5 only; not looked at */
    uint8_t request_problem_info;      /**< level 5 only; not looked at */
    uint32_t maximum_packet_size;      /**< bytes, level 5 only; 0 when the client announced none */
} mqtt_connect_para;

/** A broker, see struct mqtt_broker_instance. */
typedef struct mqtt_broker_instance mqtt_broker_instance;

/**
 * Told of an event.
 *
 * @param b      the broker that the client is connected to.
 * @param event  an mqtt_broker_event.
 * @param json   {"clientId":"...","topic":"...","qos":n}, cut at 255 bytes, nothing in it is escaped; valid
 *               until the callback returns.
 * @return is ignored.
 * @thread the I/O thread; for wills also the housekeeping thread and the callers of kick and deinit.
 */
typedef int (*mqtt_broker_event_cb)(mqtt_broker_instance *b, uint32_t event, const char *json);

/**
 * Asked whether a client may connect.
 *
 * @param b         the broker that the client is connected to.
 * @param connect   the decoded CONNECT; valid until the callback returns.
 * @param username  its user name, empty when it sent none.
 * @param password  its password, empty when it sent none.
 * @return nonzero accepts, zero refuses.
 * @thread the I/O thread.
 */
typedef int (*mqtt_broker_auth_cb)(mqtt_broker_instance *b, const mqtt_connect_para *connect,
                                   const char *username, const char *password);

/**
 * Asked whether a client may publish or subscribe.
 *
 * @param b          the broker that the client is connected to.
 * @param client_id  the client's identifier, empty before CONNECT; valid until the callback returns.
 * @param topic      the topic name or, of a subscription, the filter; valid until the callback returns.
 * @param action     0 subscribe, nonzero publish.
 * @return nonzero allows, zero refuses.
 * @thread the I/O thread.
 */
typedef int (*mqtt_broker_acl_cb)(mqtt_broker_instance *b, const char *client_id, const char *topic,
                                  uint8_t action);

/** The broker: configuration, callbacks and state. To be made by zeb_sdk_mqtt_broker_create alone. */
struct mqtt_broker_instance {
    uint8_t running;               /**< 0 or 1 */
    uint32_t keepalive_timeout;    /**< seconds, 1..3600, default 300 */
    uint32_t max_packet_size;      /**< bytes, 256..10485760, default 4096 */
    mqtt_broker_event_cb event_cb; /**< set by zeb_sdk_mqtt_broker_register_event_callback */
    mqtt_broker_auth_cb auth_cb;   /**< set by zeb_sdk_mqtt_broker_register_auth_callback */
    mqtt_broker_acl_cb acl_cb;     /**< set by zeb_sdk_mqtt_broker_register_acl_callback */
    int32_t port;                  /**< as given to start, default 1883 */
    int32_t max_clients;           /**< as given to start, default 5000 */
    char data_dir[256];            /**< default "./broker_data"; may be written between create and init */
    pthread_t broker_thread;       /**< the housekeeping thread, 0 when none */
    int32_t options[MQTT_BROKER_OPTION_CAPACITY]; /**< private: see zeb_sdk_mqtt_broker_set_option */
};

/** What zeb_sdk_mqtt_broker_get_client_info tells. */
typedef struct mqtt_broker_client_info {
    char client_id[128];        /**< the identifier */
    char ip[64];                /**< the peer's IPv4 address in dotted text */
    uint16_t port;              /**< the peer's port */
    uint16_t keepalive;         /**< seconds, 60 for a client that asked for none */
    uint8_t online;             /**< 0 or 1 */
    uint32_t connected_seconds; /**< seconds since the connection's first packet */
} mqtt_broker_client_info;

/** What zeb_sdk_mqtt_broker_get_stats tells. */
typedef struct mqtt_broker_stats {
    int online;                   /**< clients online */
    uint32_t total_messages;      /**< publications of clients, modulo 2^32 */
    uint32_t total_subscriptions; /**< as of the last report, which is made every 60 s */
    uint32_t uptime_seconds;      /**< seconds since init */
} mqtt_broker_stats;

/* Life cycle. */

/**
 * Allocate an instance with the default configuration.
 *
 * @return the instance, to be released with zeb_sdk_mqtt_broker_destroy; NULL when there is no memory.
 * @thread any.
 */
mqtt_broker_instance *zeb_sdk_mqtt_broker_create(void);

/**
 * Bring up the log (level WARN, standard output and "zeb_flash.txt" in the working directory), statistics,
 * packet handling and persistence, and restore what is stored under data_dir.
 *
 * @param b  broker; not NULL, not running.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (NULL).
 * @thread the thread of the life cycle.
 */
int zeb_sdk_mqtt_broker_init(mqtt_broker_instance *b);

/**
 * Listen on 0.0.0.0:1883 (TCP and UDP) and serve clients on threads of the library until stop and deinit.
 *
 * @param b            broker; not NULL, initialised, not running.
 * @param port         1..65535; recorded and logged only, the broker always listens on 1883.
 * @param max_clients  1..50000; the client table admits at most 11000.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (NULL or out of range); MQTT_BROKER_ERR_BUSY (running);
 *         MQTT_BROKER_ERR_RESOURCE (more than 11000 clients, no memory, port taken: also when this or another
 *         instance was not deinitialised). Nothing is left behind on failure.
 * @thread the thread of the life cycle.
 */
int zeb_sdk_mqtt_broker_start(mqtt_broker_instance *b, int port, int max_clients);

/**
 * End housekeeping (keep-alive scan, will delay, statistics report). Clients stay connected until deinit.
 *
 * @param b  broker; not NULL.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (NULL); MQTT_BROKER_ERR_BUSY (called from a callback).
 * @thread the thread of the life cycle. Waits for a housekeeping pass that is under way.
 */
int zeb_sdk_mqtt_broker_stop(mqtt_broker_instance *b);

/**
 * Disconnect all clients, end every thread of the library, release all memory but the instance, clear the
 * callbacks and close the log. Harmless before init, and when called twice.
 *
 * @param b  broker; NULL is only logged. Ignored, with an ERROR line, when called from a callback.
 * @thread the thread of the life cycle; no other call on the instance may be under way.
 */
void zeb_sdk_mqtt_broker_deinit(mqtt_broker_instance *b);

/**
 * Free an instance that create returned. Deinit comes first if it was initialised.
 *
 * @param b  broker; NULL is ignored. Ignored, with an ERROR line, when called from a callback.
 * @thread the thread of the life cycle.
 */
void zeb_sdk_mqtt_broker_destroy(mqtt_broker_instance *b);

/**
 * Whether the broker is between a successful start and stop.
 *
 * @param b  broker; NULL is answered with 0.
 * @return 1 or 0.
 * @thread any, also from a callback.
 */
int zeb_sdk_mqtt_broker_is_running(mqtt_broker_instance *b);

/* Configuration. */

/**
 * Set the lowest level that is logged, from the next line on. Init sets it to 2.
 *
 * @param b      not looked at.
 * @param level  0 DEBUG, 1 INFO, 2 WARN, 3 ERROR, 4 FATAL; anything else is ignored.
 * @return MQTT_BROKER_OK, always.
 * @thread any, also from a callback.
 */
int zeb_sdk_mqtt_broker_set_log_level(mqtt_broker_instance *b, int level);

/**
 * Set how long a client that has not announced a keep-alive of its own (it has not sent CONNECT yet) may stay
 * silent before it is closed. The others are closed after one and a half times their keep-alive, 60 s when
 * they asked for none. Silent clients are looked for every 10 s.
 *
 * @param b        broker; not NULL, not running.
 * @param seconds  1..3600, in seconds; 300 by default.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (NULL or out of range); MQTT_BROKER_ERR_BUSY (running).
 * Nothing changes on failure.
 * @thread the thread of the life cycle.
 * @source MQTT 5.0 section 3.1.2.10 (Keep Alive).
 */
int zeb_sdk_mqtt_broker_set_keepalive_timeout(mqtt_broker_instance *b, int seconds);

/**
 * Set the largest packet that is exchanged with a client before its CONNECT has negotiated a limit.
 *
 * @param b      broker; not NULL, not running.
 * @param bytes  256..10485760, fixed header included; 4096 by default. No packet above 4096 bytes can be
 * received or sent, whatever is set here.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (NULL or out of range); MQTT_BROKER_ERR_BUSY (running).
 * @thread the thread of the life cycle.
 * @source MQTT 5.0 section 3.1.2.11.4 (Maximum Packet Size).
 */
int zeb_sdk_mqtt_broker_set_max_packet_size(mqtt_broker_instance *b, int bytes);

/**
 * Switch on, or off again, what goes beyond the fixed behaviour. Takes effect with the next start.
 *
 * @param b       broker; not NULL, not running.
 * @param option  which one.
 * @param value   its value, in the range given with mqtt_broker_option; 0 is off.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (NULL, an unknown option or a value out of its range);
 *         MQTT_BROKER_ERR_BUSY (running). Nothing changes on failure.
 * @thread the thread of the life cycle.
 */
int zeb_sdk_mqtt_broker_set_option(mqtt_broker_instance *b, mqtt_broker_option option, int value);

/* Callbacks. */

/**
 * Register the callback that is told of events. The text is cut at 255 bytes; nothing in it is escaped.
 *
 * @param b   broker; NULL is ignored.
 * @param cb  the callback, or NULL for none.
 * @thread any, at any time, also from a callback.
 */
void zeb_sdk_mqtt_broker_register_event_callback(mqtt_broker_instance *b, mqtt_broker_event_cb cb);

/**
 * Register the callback that admits clients: zero refuses a CONNECT. User name and password are empty texts
 * when the client sent none.
 *
 * @param b   broker; NULL is ignored.
 * @param cb  the callback, or NULL to admit every client.
 * @thread any, at any time, also from a callback.
 * @source MQTT 5.0 section 3.1.4 (CONNECT Actions).
 */
void zeb_sdk_mqtt_broker_register_auth_callback(mqtt_broker_instance *b, mqtt_broker_auth_cb cb);

/**
 * Register the callback that allows publications (action nonzero, `topic` a topic name) and subscriptions
 * (action 0, `topic` a filter): zero refuses.
 *
 * @param b   broker; NULL is ignored.
 * @param cb  the callback, or NULL to allow everything.
 * @thread any, at any time, also from a callback.
 */
void zeb_sdk_mqtt_broker_register_acl_callback(mqtt_broker_instance *b, mqtt_broker_acl_cb cb);

/* Query and control, between start and deinit. */

/**
 * Count the connections that have sent at least one packet.
 *
 * @param b  not looked at.
 * @return the number of clients online.
 * @thread any, also from a callback.
 */
int zeb_sdk_mqtt_broker_get_online_count(mqtt_broker_instance *b);

/**
 * List the identifiers of the clients online, separated by ",".
 *
 * @param b     not looked at.
 * @param buf   receives the text, always terminated; the last identifier is cut when it does not fit.
 * @param size  bytes of buf, at least 1.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (NULL or size below 1).
 * @thread any, also from a callback.
 */
int zeb_sdk_mqtt_broker_get_client_id_list(mqtt_broker_instance *b, char *buf, int size);

/**
 * Describe one client.
 *
 * @param b          the broker that the client is connected to.
 * @param client_id  its identifier.
 * @param out        filled on success, unchanged otherwise.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (a NULL); MQTT_BROKER_ERR_NOT_FOUND;
 *         MQTT_BROKER_ERR_DENIED (the client belongs to another instance).
 * @thread any, also from a callback.
 */
int zeb_sdk_mqtt_broker_get_client_info(mqtt_broker_instance *b, const char *client_id,
                                        mqtt_broker_client_info *out);

/**
 * Send a client DISCONNECT (reason 0x98 at MQTT 5) and close its connection. Its will is published.
 *
 * @param b          the broker that the client is connected to.
 * @param client_id  its identifier, not empty.
 * @return MQTT_BROKER_OK (also when its end was under way already); MQTT_BROKER_ERR_PARAM;
 *         MQTT_BROKER_ERR_NOT_FOUND; MQTT_BROKER_ERR_DENIED (the client belongs to another instance).
 * @thread any, also from a callback, also for the client that the callback is about. May wait 10 ms for a
 * peer whose socket is full.
 * @source MQTT 5.0 section 3.14.2.1 (Disconnect Reason Code).
 */
int zeb_sdk_mqtt_broker_kick_client(mqtt_broker_instance *b, const char *client_id);

/**
 * Publish a message to all matching subscribers.
 *
 * @param b               not looked at.
 * @param topic           topic name; cut at 255 bytes.
 * @param payload         the message; copied before the call returns.
 * @param len             its length in bytes, at least 1; cut at 2048.
 * @param qos             0, 1 or 2.
 * @param retain          nonzero: also store it as the topic's retained message.
 * @param expiry_seconds  message expiry interval, 0 = never expires.
 * @return MQTT_BROKER_OK, also without a subscriber; MQTT_BROKER_ERR_PARAM.
 * @thread any, also from a callback.
 * @source MQTT 5.0 section 3.3 (PUBLISH).
 */
int zeb_sdk_mqtt_broker_publish(mqtt_broker_instance *b, const char *topic, const uint8_t *payload, int len,
                                uint32_t qos, int retain, uint32_t expiry_seconds);

/**
 * Remove a topic's retained message.
 *
 * @param b      not looked at.
 * @param topic  the exact topic name.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (NULL); MQTT_BROKER_ERR_NOT_FOUND.
 * @thread any, also from a callback.
 */
int zeb_sdk_mqtt_broker_clear_retain(mqtt_broker_instance *b, const char *topic);

/**
 * List the topics that hold a retained message, each followed by a line feed.
 *
 * @param b     not looked at.
 * @param buf   receives as many whole topics as fit, always terminated.
 * @param size  bytes of buf, at least 1.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (NULL or size below 1).
 * @thread any, also from a callback.
 */
int zeb_sdk_mqtt_broker_get_retain_topic_list(mqtt_broker_instance *b, char *buf, int size);

/**
 * Read the counters. total_messages counts the publications of clients, modulo 2^32; total_subscriptions is
 * as of the last report, which is made every 60 s.
 *
 * @param b    not looked at.
 * @param out  filled on success.
 * @return MQTT_BROKER_OK; MQTT_BROKER_ERR_PARAM (NULL).
 * @thread any, also from a callback.
 */
int zeb_sdk_mqtt_broker_get_stats(mqtt_broker_instance *b, mqtt_broker_stats *out);

/**
 * Name the version.
 *
 * @return the version of the library, "V2.0.0"; static storage.
 * @thread any.
 */
const char *zeb_sdk_mqtt_broker_version(void);

/**
 * Put a result into words.
 *
 * @param code  a result of any function above.
 * @return its English text, "Unknown error" for others; static storage.
 * @thread any.
 */
const char *zeb_sdk_mqtt_broker_error_str(int code);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif

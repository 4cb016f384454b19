// The facade's inside: the callbacks towards the application, and the housekeeping thread.
#include "sdk/broker.h"

#include <atomic>
#include <cstdio>

#include "client/client_mgr.h"
#include "log/agent_log.h"
#include "log/platform_time.h"
#include "netip/netip.h"
#include "sdk/sdk_internal.h"
#include "stats/mqtt_stats.h"
#include "sub/retain_store.h"

namespace zeb {

namespace {

thread_local int t_callback_depth = 0;

// Marks this thread as being inside one of the application's callbacks.
class callback_scope {
  public:
    callback_scope() { ++t_callback_depth; }
    ~callback_scope() { --t_callback_depth; }
    callback_scope(const callback_scope &) = delete;
    callback_scope &operator=(const callback_scope &) = delete;
};

mqtt_broker_instance *owner_of(const mqtt_client *client) {
    return client == nullptr ? nullptr : client->broker.load(std::memory_order_relaxed);
}

template <typename Callback>
Callback load_callback(Callback &field) {
    return std::atomic_ref<Callback>(field).load(std::memory_order_acquire);
}

}  // namespace

bool broker_in_callback() {
    return t_callback_depth > 0;
}

int broker_fire_auth(const mqtt_client *client, const mqtt_connect_para *connect, const char *username,
                     const char *password) {
    mqtt_broker_instance *broker = owner_of(client);
    if (broker == nullptr) return 1;
    const mqtt_broker_auth_cb callback = load_callback(broker->auth_cb);
    if (callback == nullptr) return 1;
    const callback_scope scope;
    return callback(broker, connect, username, password);
}

int broker_fire_acl(const mqtt_client *client, const char *topic, uint8_t action) {
    mqtt_broker_instance *broker = owner_of(client);
    if (broker == nullptr) return 1;
    const mqtt_broker_acl_cb callback = load_callback(broker->acl_cb);
    if (callback == nullptr) return 1;
    char id[65];
    client_copy_id(client, id);
    const callback_scope scope;
    return callback(broker, id, topic, action);
}

void broker_fire_event(const mqtt_client *client, uint32_t event, const char *topic, int qos) {
    mqtt_broker_instance *broker = owner_of(client);
    if (broker == nullptr) return;
    const mqtt_broker_event_cb callback = load_callback(broker->event_cb);
    if (callback == nullptr) return;
    constexpr std::size_t k_json_bytes = 256;  // a longer text is cut
    char id[65];
    client_copy_id(client, id);
    char json[k_json_bytes];
    snprintf(json, sizeof json, "{\"clientId\":\"%s\",\"topic\":\"%s\",\"qos\":%d}", id,
             topic == nullptr ? "" : topic, qos);
    const callback_scope scope;
    callback(broker, event, json);
}

namespace {

// Wall-clock seconds; process-wide and 0 at start, so that the very first pass does everything. A stop does
// not reset them. Only one housekeeping thread runs at a time.
std::atomic<int64_t> last_clean{0};
std::atomic<int64_t> last_stats_print{0};
std::atomic<int64_t> last_retain_clean{0};
std::atomic<int64_t> last_admission_check{0};

constexpr int64_t k_clean_period_s = 10;
constexpr int64_t k_stats_period_s = 60;
constexpr int64_t k_retain_period_s = 5;
constexpr int64_t k_admission_period_s = 1;
constexpr uint64_t k_pass_us = 10000;

// A clock that was set back makes a task due as well, or it would rest until the old time is reached again.
bool is_due(const std::atomic<int64_t> &stamp, int64_t period_s) {
    const int64_t since = platform_wall_sec() - stamp.load(std::memory_order_relaxed);
    return since >= period_s || since < 0;
}

void mark_done(std::atomic<int64_t> *stamp) {
    stamp->store(platform_wall_sec(), std::memory_order_relaxed);
}

void housekeeping_pass(mqtt_broker_instance *b) {
    if (is_due(last_clean, k_clean_period_s)) {
        client_clean_timeout(broker_field(b->keepalive_timeout) * 1000u);
        mark_done(&last_clean);
    }
    if (is_due(last_stats_print, k_stats_period_s)) {
        mqtt_stats_print();
        mqtt_stats_reset_period();
        mark_done(&last_stats_print);
    }
    if (is_due(last_retain_clean, k_retain_period_s)) {
        retain_clean_expired();
        mark_done(&last_retain_clean);
    }
    const int connect_timeout_s = broker_field(b->options[MQTT_BROKER_OPTION_CONNECT_TIMEOUT]);
    if (connect_timeout_s != 0 && is_due(last_admission_check, k_admission_period_s)) {
        const int closed = netip_close_unadmitted(static_cast<uint64_t>(connect_timeout_s) * 1000u);
        if (closed != 0) ZEB_LOG(AGENT_LOG_WARN, "[SDK] closed %d connections without CONNECT", closed);
        mark_done(&last_admission_check);
    }
    client_will_delay_pass();
}

}  // namespace

void broker_thread_entry(mqtt_broker_instance *b) {
    while (broker_is_running(b)) {
        housekeeping_pass(b);
        platform_sleep_us(k_pass_us);
    }
}

}  // namespace zeb

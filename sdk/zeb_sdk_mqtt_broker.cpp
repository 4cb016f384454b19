// The public interface: life cycle and configuration.
#include "sdk/zeb_sdk_mqtt_broker.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "client/client_mgr.h"
#include "log/agent_log.h"
#include "log/platform_thread.h"
#include "netip/netip.h"
#include "packet/packet_handler.h"
#include "persist/persist.h"
#include "sdk/broker.h"
#include "sdk/sdk_internal.h"
#include "stats/mqtt_stats.h"

using namespace zeb;

namespace {

constexpr const char *k_version = "V2.0.0";
constexpr int k_max_port = 65535;
constexpr int k_max_clients = 50000;  // client_mgr_init admits fewer: both bounds are kept
constexpr uint32_t k_default_keepalive_s = 300;
constexpr int k_max_keepalive_s = 3600;
constexpr uint32_t k_default_packet_size = 4096;
constexpr int k_min_packet_size = 256;
constexpr int k_max_packet_size = 10485760;
constexpr int k_default_max_clients = 5000;
constexpr const char *k_default_data_dir = "./broker_data";

struct code_text {
    int code;
    const char *text;
};

constexpr code_text k_error_texts[] = {
    {MQTT_BROKER_OK, "OK"},
    {MQTT_BROKER_ERR_INIT, "Init failed"},
    {MQTT_BROKER_ERR_PARAM, "Invalid parameter"},
    {MQTT_BROKER_ERR_RESOURCE, "Resource error"},
    {MQTT_BROKER_ERR_NOT_RUNNING, "Not running"},
    {MQTT_BROKER_ERR_NOT_FOUND, "Not found"},
    {MQTT_BROKER_ERR_DENIED, "Denied"},
    {MQTT_BROKER_ERR_BUSY, "Busy (already running)"},
    {MQTT_BROKER_ERR_TIMEOUT, "Timeout"},
};

struct option_range {
    mqtt_broker_option option;
    int max;  // from 0, which is off
};

constexpr option_range k_options[] = {
    {MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1},  {MQTT_BROKER_OPTION_CONNECT_TIMEOUT, 3600},
    {MQTT_BROKER_OPTION_LEVEL_BY_CONNECT, 1}, {MQTT_BROKER_OPTION_LOW_LATENCY, 1},
    {MQTT_BROKER_OPTION_EXACT_LOOKUP, 1},
};

bool is_valid_option(mqtt_broker_option option, int value) {
    for (const option_range &row : k_options)
        if (row.option == option) return value >= 0 && value <= row.max;
    return false;
}

constexpr netip_hooks k_prompt_hooks = {client_socket_writable, client_flush_queued};

// To the modules that know no instance.
void apply_options(mqtt_broker_instance *b) {
    const auto flag = [b](mqtt_broker_option option) {
        return static_cast<uint8_t>(broker_field(b->options[option]));
    };
    g_packet_options.require_connect.store(flag(MQTT_BROKER_OPTION_REQUIRE_CONNECT),
                                           std::memory_order_relaxed);
    g_packet_options.level_by_connect.store(flag(MQTT_BROKER_OPTION_LEVEL_BY_CONNECT),
                                            std::memory_order_relaxed);
    g_client_options.exact_lookup.store(flag(MQTT_BROKER_OPTION_EXACT_LOOKUP), std::memory_order_relaxed);
    const uint8_t low_latency = flag(MQTT_BROKER_OPTION_LOW_LATENCY);
    g_client_options.low_latency.store(low_latency, std::memory_order_relaxed);
    netip_set_hooks(low_latency != 0 ? &k_prompt_hooks : nullptr);
}

// stop, deinit and destroy wait for threads of ours, so none of these may ask for them; and a start while
// deinit is under way would set up anew what the thread is working on.
bool refused_in_callback(const char *what) {
    if (!broker_in_callback()) return false;
    ZEB_LOG(AGENT_LOG_ERROR, "[SDK] %s refused: called from a callback", what);
    return true;
}

void *housekeeping_thread(void *arg) {
    broker_thread_entry(static_cast<mqtt_broker_instance *>(arg));
    return nullptr;
}

void end_housekeeping(mqtt_broker_instance *b) {
    broker_set_running(b, false);
    if (b->broker_thread == 0) return;
    pthread_join(b->broker_thread, nullptr);
    b->broker_thread = 0;
}

// Whose start has brought the network up; null when it is down. Another instance leaves the modules alone.
std::atomic<const mqtt_broker_instance *> s_serving{nullptr};

// The modules are singletons: with the network up, for this instance or another one, the port is taken. Found
// out before the client table is set up anew, which is the live one.
int start_modules(mqtt_broker_instance *b, int max_clients) {
    int err = NETIP_ERR_BIND;
    if (g_netip_running.load(std::memory_order_relaxed) == 0) {
        if (client_mgr_init(max_clients) != 0) {
            ZEB_LOG(AGENT_LOG_ERROR, "[SDK] client_mgr_init failed");
            return MQTT_BROKER_ERR_RESOURCE;
        }
        g_default_max_packet_size.store(broker_field(b->max_packet_size), std::memory_order_relaxed);
        apply_options(b);
        err = netip_init(mqtt_netip_event_cb, b, 1);
        if (err == NETIP_OK) return MQTT_BROKER_OK;
        client_mgr_deinit();
    }
    ZEB_LOG(AGENT_LOG_ERROR, "[SDK] netip_init failed[%d]", err);
    return MQTT_BROKER_ERR_RESOURCE;
}

}  // namespace

mqtt_broker_instance *zeb_sdk_mqtt_broker_create(void) {
    constexpr const char *k_frame = "[SDK] ========================================================";
    ZEB_LOG(AGENT_LOG_INFO, "%s", k_frame);
    ZEB_LOG(AGENT_LOG_INFO, "[SDK]   Version: %s ", k_version);
    ZEB_LOG(AGENT_LOG_INFO, "%s", k_frame);
    auto *b = static_cast<mqtt_broker_instance *>(calloc(1, sizeof(mqtt_broker_instance)));
    if (b == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[SDK] calloc instance failed");
        return nullptr;
    }
    b->keepalive_timeout = k_default_keepalive_s;
    b->max_packet_size = k_default_packet_size;
    b->port = NETIP_PORT;
    b->max_clients = k_default_max_clients;
    snprintf(b->data_dir, sizeof b->data_dir, "%s", k_default_data_dir);
    ZEB_LOG(AGENT_LOG_INFO, "[SDK] create broker instance success");
    return b;
}

int zeb_sdk_mqtt_broker_init(mqtt_broker_instance *b) {
    if (broker_is_null(b)) return MQTT_BROKER_ERR_PARAM;
    const mqtt_broker_instance *serving = s_serving.load(std::memory_order_relaxed);
    if (serving != nullptr && serving != b) return MQTT_BROKER_OK;  // its log, counters and tables are live
    const agent_log_config log{AGENT_LOG_WARN, AGENT_LOG_OUT_STDOUT | AGENT_LOG_OUT_FILE, 0, 256, nullptr};
    agent_log_init(&log);
    mqtt_stats_init();
    if (serving != nullptr) return MQTT_BROKER_OK;  // the tables are live
    // Initialising cannot fail: a table that could not be had is logged there, and answers as if it were
    // full.
    (void)packet_handler_init();
    persist_init(b->data_dir);
    ZEB_LOG(AGENT_LOG_INFO, "[SDK] init success, port=%d, max_clients=%d", b->port, b->max_clients);
    return MQTT_BROKER_OK;
}

int zeb_sdk_mqtt_broker_start(mqtt_broker_instance *b, int port, int max_clients) {
    if (broker_is_null(b)) return MQTT_BROKER_ERR_PARAM;
    if (broker_is_running(b)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[SDK] start failed: broker is already running");
        return MQTT_BROKER_ERR_BUSY;
    }
    if (refused_in_callback("start")) return MQTT_BROKER_ERR_BUSY;
    if (port < 1 || port > k_max_port) {
        ZEB_LOG(AGENT_LOG_ERROR, "[SDK] invalid listen port: %d", port);
        return MQTT_BROKER_ERR_PARAM;
    }
    if (max_clients < 1 || max_clients > k_max_clients) {
        ZEB_LOG(AGENT_LOG_ERROR, "[SDK] invalid max clients: %d", max_clients);
        return MQTT_BROKER_ERR_PARAM;
    }
    const int result = start_modules(b, max_clients);
    if (result != MQTT_BROKER_OK) return result;
    s_serving.store(b, std::memory_order_relaxed);
    broker_set_running(b, true);
    b->port = port;
    b->max_clients = max_clients;
    const int err = platform_thread_start(&b->broker_thread, "zeb-house", housekeeping_thread, b);
    if (err != 0) {
        // The broker serves on without housekeeping; there is no thread to join later.
        b->broker_thread = 0;
        ZEB_LOG(AGENT_LOG_ERROR, "[SDK] cannot start the housekeeping thread: error %d", err);
    }
    ZEB_LOG(AGENT_LOG_INFO, "[SDK] start success, listen 0.0.0.0:%d", port);
    return MQTT_BROKER_OK;
}

int zeb_sdk_mqtt_broker_stop(mqtt_broker_instance *b) {
    if (broker_is_null(b)) return MQTT_BROKER_ERR_PARAM;
    if (refused_in_callback("stop")) return MQTT_BROKER_ERR_BUSY;
    end_housekeeping(b);
    ZEB_LOG(AGENT_LOG_INFO, "[SDK] broker stopped");
    return MQTT_BROKER_OK;
}

void zeb_sdk_mqtt_broker_deinit(mqtt_broker_instance *b) {
    if (broker_is_null(b) || refused_in_callback("deinit")) return;
    const mqtt_broker_instance *serving = s_serving.load(std::memory_order_relaxed);
    if (serving == nullptr || serving == b) {
        end_housekeeping(b);  // it works on the modules that go now
        netip_deinit();
        persist_destroy();
        client_mgr_deinit();
        mqtt_stats_deinit();
        agent_log_deinit();
        s_serving.store(nullptr, std::memory_order_relaxed);
    }
    zeb_sdk_mqtt_broker_register_event_callback(b, nullptr);
    zeb_sdk_mqtt_broker_register_auth_callback(b, nullptr);
    zeb_sdk_mqtt_broker_register_acl_callback(b, nullptr);
    ZEB_LOG(AGENT_LOG_INFO, "[SDK] deinit success");  // dropped, the log being closed
}

void zeb_sdk_mqtt_broker_destroy(mqtt_broker_instance *b) {
    if (b == nullptr || refused_in_callback("destroy")) return;
    free(b);
    ZEB_LOG(AGENT_LOG_INFO, "[SDK] destroy broker instance success");
}

int zeb_sdk_mqtt_broker_is_running(mqtt_broker_instance *b) {
    return broker_is_null(b) ? 0 : std::atomic_ref<uint8_t>(b->running).load(std::memory_order_relaxed);
}

int zeb_sdk_mqtt_broker_set_log_level(mqtt_broker_instance *, int level) {
    agent_log_set_level(static_cast<uint32_t>(level));
    return MQTT_BROKER_OK;
}

int zeb_sdk_mqtt_broker_set_keepalive_timeout(mqtt_broker_instance *b, int seconds) {
    if (broker_is_null(b)) return MQTT_BROKER_ERR_PARAM;
    if (broker_is_running(b)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[SDK] set_keepalive_timeout failed: broker is already running");
        return MQTT_BROKER_ERR_BUSY;
    }
    if (seconds < 1 || seconds > k_max_keepalive_s) return MQTT_BROKER_ERR_PARAM;
    broker_set_field(b->keepalive_timeout, static_cast<uint32_t>(seconds));
    ZEB_LOG(AGENT_LOG_INFO, "[SDK] set keepalive timeout = %d sec", seconds);
    return MQTT_BROKER_OK;
}

int zeb_sdk_mqtt_broker_set_max_packet_size(mqtt_broker_instance *b, int bytes) {
    if (broker_is_null(b)) return MQTT_BROKER_ERR_PARAM;
    if (broker_is_running(b)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[SDK] set_max_packet_size failed: broker is already running");
        return MQTT_BROKER_ERR_BUSY;
    }
    if (bytes < k_min_packet_size || bytes > k_max_packet_size) return MQTT_BROKER_ERR_PARAM;
    broker_set_field(b->max_packet_size, static_cast<uint32_t>(bytes));
    return MQTT_BROKER_OK;
}

int zeb_sdk_mqtt_broker_set_option(mqtt_broker_instance *b, mqtt_broker_option option, int value) {
    if (broker_is_null(b) || !is_valid_option(option, value)) return MQTT_BROKER_ERR_PARAM;
    if (broker_is_running(b)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[SDK] set_option failed: broker is already running");
        return MQTT_BROKER_ERR_BUSY;
    }
    broker_set_field(b->options[option], value);
    ZEB_LOG(AGENT_LOG_INFO, "[SDK] set option %d = %d", static_cast<int>(option), value);
    return MQTT_BROKER_OK;
}

const char *zeb_sdk_mqtt_broker_version(void) {
    return k_version;
}

const char *zeb_sdk_mqtt_broker_error_str(int code) {
    for (const code_text &row : k_error_texts)
        if (row.code == code) return row.text;
    return "Unknown error";
}

// An embedding program that answers questions about its broker: "stats" on standard input gives one line of
// JSON, the end of the input ends it.
#include <csignal>
#include <cstdio>
#include <cstring>

#include "sdk/zeb_sdk_mqtt_broker.h"
#include "stats/mqtt_stats.h"

namespace {

bool print_stats(mqtt_broker_instance *b) {
    char totals[2048];
    mqtt_broker_stats stats;
    if (zeb::mqtt_stats_to_json(totals, sizeof totals) != 0 || zeb_sdk_mqtt_broker_get_stats(b, &stats) != 0)
        return false;
    totals[strlen(totals) - 1] = '\0';  // what the library's own text leaves out goes before its last brace
    return printf("stats %s,\"total_messages\":%u,\"total_subscriptions\":%u,\"parse_error\":%u}\n", totals,
                  stats.total_messages, stats.total_subscriptions,
                  zeb::g_mqtt_stats.parse_error.load()) > 0 &&
           fflush(stdout) == 0;
}

int serve(mqtt_broker_instance *b, int max_clients) {
    if (zeb_sdk_mqtt_broker_init(b) != 0) return 1;
    zeb_sdk_mqtt_broker_set_log_level(b, 3);
    if (zeb_sdk_mqtt_broker_start(b, 1883, max_clients) != 0) return 1;
    puts("ready");
    fflush(stdout);
    char line[64];
    while (fgets(line, sizeof line, stdin) != nullptr)
        if (!print_stats(b)) return 1;
    return zeb_sdk_mqtt_broker_stop(b);
}

}  // namespace

int main() {
    constexpr int k_max_clients = 1000;
    signal(SIGPIPE, SIG_IGN);
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    if (b == nullptr) return 1;
    const int result = serve(b, k_max_clients);
    zeb_sdk_mqtt_broker_deinit(b);
    zeb_sdk_mqtt_broker_destroy(b);
    return result;
}

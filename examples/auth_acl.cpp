// Who may connect and who may use which topics, from a small file. One line per user, words apart by blanks:
//   <user> <password> <publish prefix> <subscribe prefix>
// "*" stands for every topic, "-" for none. A client's identifier has to be its user name: the rules for
// topics are asked by identifier. The records are never changed while the broker runs, so the callbacks need
// no lock.
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <string_view>

#include "zeb_sdk_mqtt_broker.h"

namespace {

struct rule {
    std::string password, publish, subscribe;
};

std::map<std::string, rule, std::less<>> g_rules;

bool read_rules(const char *path) {
    std::ifstream file(path);
    std::string user;
    rule r;
    while (file >> user >> r.password >> r.publish >> r.subscribe) g_rules[user] = r;
    return file.eof() && !g_rules.empty();
}

bool covers(std::string_view allowed, std::string_view topic) {
    return allowed == "*" || (allowed != "-" && topic.substr(0, allowed.size()) == allowed);
}

int on_auth(mqtt_broker_instance *, const mqtt_connect_para *connect, const char *user,
            const char *password) {
    const auto found = g_rules.find(std::string_view(user));
    return found != g_rules.end() && found->second.password == password &&
           std::string_view(connect->client_id) == user;
}

// Also asked before CONNECT, with an identifier that no user has.
int on_acl(mqtt_broker_instance *, const char *client_id, const char *topic, uint8_t action) {
    const auto found = g_rules.find(std::string_view(client_id));
    if (found == g_rules.end()) return 0;
    return covers(action != 0 ? found->second.publish : found->second.subscribe, topic);
}

// Strangers get no place: CONNECT comes first, and within 10 s.
int configure(mqtt_broker_instance *b) {
    zeb_sdk_mqtt_broker_register_auth_callback(b, on_auth);
    zeb_sdk_mqtt_broker_register_acl_callback(b, on_acl);
    int result = zeb_sdk_mqtt_broker_set_option(b, MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1);
    if (result == 0) result = zeb_sdk_mqtt_broker_set_option(b, MQTT_BROKER_OPTION_CONNECT_TIMEOUT, 10);
    return result;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2 || !read_rules(argv[1])) return std::fputs("usage: auth_acl FILE\n", stderr), 2;
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    if (b == nullptr) return 1;
    int result = configure(b);
    if (result == 0) result = zeb_sdk_mqtt_broker_init(b);
    if (result == 0) result = zeb_sdk_mqtt_broker_start(b, 1883, 1000);
    if (result == 0) {
        std::printf("%zu users, Enter ends\n", g_rules.size());
        std::fflush(stdout);
        (void)std::getchar();
        (void)zeb_sdk_mqtt_broker_stop(b);
    } else {
        std::fprintf(stderr, "no broker: %s\n", zeb_sdk_mqtt_broker_error_str(result));
    }
    zeb_sdk_mqtt_broker_deinit(b);
    zeb_sdk_mqtt_broker_destroy(b);
    return result == 0 ? 0 : 1;
}

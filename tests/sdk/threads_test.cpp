// Every function that may be called from any thread, by four threads at random, while clients come and go and
// the callbacks are exchanged under way. ZEB_STORM_SECONDS in the environment makes it last longer than 6 s.
#include <cstdlib>
#include <random>
#include <thread>

#include "tests/sdk/sdk_fixture.h"

namespace {

using zeb_test::broker;
using zeb_test::mqtt_peer;

constexpr int k_applications = 4;
constexpr int k_peers = 8;
constexpr char k_texts[][4] = {"one", "two"};

std::atomic<bool> g_done{false};
std::atomic<int> g_calls{0};
std::atomic<int> g_told{0};
std::atomic<int> g_kicked{0};
std::atomic<int> g_mixed{0};  // answers that belong to another client, or to two

std::string name_of(unsigned number) {
    return "peer-" + std::to_string(number % k_peers);
}

// In each callback the application calls back, also for the client that it is told of.
template <int text>
int on_event(mqtt_broker_instance *b, uint32_t event, const char *json) {
    ++g_told;
    if (strncmp(json, "{\"clientId\":\"peer-", 18) != 0) ++g_mixed;
    mqtt_broker_client_info info;
    const std::string name(json + 13, 6);
    if (zeb_sdk_mqtt_broker_get_client_info(b, name.c_str(), &info) == 0 && name != info.client_id) ++g_mixed;
    const auto *payload = reinterpret_cast<const uint8_t *>(k_texts[text]);
    zeb_sdk_mqtt_broker_publish(b, "told", payload, 3, 0, 0, 0);
    if (event == MQTT_BROKER_EVENT_SUBSCRIBE && g_told % 16 == 0)
        g_kicked += zeb_sdk_mqtt_broker_kick_client(b, name.c_str()) == 0;
    return 0;
}
int on_auth(mqtt_broker_instance *b, const mqtt_connect_para *connect, const char *, const char *) {
    return zeb_sdk_mqtt_broker_is_running(b) == 1 && strncmp(connect->client_id, "peer-", 5) == 0;
}
int on_acl(mqtt_broker_instance *b, const char *client_id, const char *, uint8_t) {
    mqtt_broker_client_info info;
    zeb_sdk_mqtt_broker_get_client_info(b, client_id, &info);
    return 1;
}

void call_one(mqtt_broker_instance *b, std::mt19937 *random) {
    char text[512];
    mqtt_broker_client_info info;
    mqtt_broker_stats stats;
    const std::string name = name_of((*random)());
    const auto *payload = reinterpret_cast<const uint8_t *>(name.data());
    const int len = static_cast<int>(name.size());
    const uint32_t qos = (*random)() % 3;
    ++g_calls;
    switch ((*random)() % 14) {
        case 0:
            zeb_sdk_mqtt_broker_get_online_count(b);
            break;
        case 1:
            zeb_sdk_mqtt_broker_get_client_id_list(b, text, static_cast<int>(1 + (*random)() % sizeof text));
            break;
        case 2:
        case 3:
            if (zeb_sdk_mqtt_broker_get_client_info(b, name.c_str(), &info) == 0 &&
                (name != info.client_id || strcmp(info.ip, "127.0.0.1") != 0))
                ++g_mixed;
            break;
        case 4:
            g_kicked += zeb_sdk_mqtt_broker_kick_client(b, name.c_str()) == 0;
            break;
        case 5:
        case 6:
            zeb_sdk_mqtt_broker_publish(b, ("in/" + name).c_str(), payload, len, qos, 0, 0);
            break;
        case 7:
            zeb_sdk_mqtt_broker_publish(b, ("kept/" + name).c_str(), payload, len, qos, 1, 1);
            break;
        case 8:
            zeb_sdk_mqtt_broker_clear_retain(b, ("kept/" + name).c_str());
            break;
        case 9:
            zeb_sdk_mqtt_broker_get_retain_topic_list(b, text,
                                                      static_cast<int>(1 + (*random)() % sizeof text));
            break;
        case 10:
            zeb_sdk_mqtt_broker_get_stats(b, &stats);
            break;
        case 11:
            zeb_sdk_mqtt_broker_register_event_callback(b, qos == 0   ? nullptr
                                                           : qos == 1 ? on_event<0>
                                                                      : on_event<1>);
            break;
        case 12:
            zeb_sdk_mqtt_broker_register_auth_callback(b, qos == 0 ? nullptr : on_auth);
            zeb_sdk_mqtt_broker_register_acl_callback(b, qos == 0 ? nullptr : on_acl);
            break;
        default:
            zeb_sdk_mqtt_broker_set_log_level(b, zeb::AGENT_LOG_FATAL);
            if (zeb_sdk_mqtt_broker_is_running(b) != 1) ++g_mixed;
            if (strcmp(zeb_sdk_mqtt_broker_version(), "V2.0.0") != 0) ++g_mixed;
            break;
    }
}

// Comes, subscribes, publishes a little, and goes in one of three ways.
void live(unsigned number, std::mt19937 *random) {
    zeb_test::connect_options options;
    options.clean = (*random)() % 2 == 0;
    if ((*random)() % 2 == 0) options.will_topic = "in/will";
    mqtt_peer peer;
    if (!peer.send(zeb_test::connect_packet(name_of(number), options)) || peer.read().empty()) return;
    if (!peer.send(zeb_test::subscribe_packet(7, "in/#", 1))) return;
    for (unsigned i = (*random)() % 20; i > 0 && !g_done; --i) {
        const bool told = peer.tcp().readable(std::chrono::milliseconds(10));
        if (told && peer.read().empty()) return;
        if (!peer.send(zeb_test::publish_packet("in/" + name_of((*random)()), {0xFF}, 0))) return;
    }
    switch ((*random)() % 3) {
        case 0:
            peer.send("E0 00");
            break;
        case 1:
            peer.reset();
            break;
        default:
            peer.close();
    }
}

void storm(const std::vector<mqtt_broker_option> &options) {
    g_done = false;
    g_calls = g_told = g_kicked = g_mixed = 0;
    broker b;
    for (const mqtt_broker_option option : options)
        ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), option, 1), 0);
    ASSERT_EQ(b.start(100), 0);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < k_applications; ++i)
        threads.emplace_back([&b, i] {
            std::mt19937 random(i);
            while (!g_done) {
                call_one(b.get(), &random);
                if (random() % 8 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    for (unsigned i = 0; i < k_peers; ++i)
        threads.emplace_back([i] {
            std::mt19937 random(1000 + i);
            while (!g_done) live(i, &random);
        });
    const char *seconds = getenv("ZEB_STORM_SECONDS");
    std::this_thread::sleep_for(std::chrono::seconds(seconds == nullptr ? 6 : atoi(seconds)));
    g_done = true;
    for (std::thread &t : threads) t.join();
    EXPECT_EQ(g_mixed, 0);
    EXPECT_GT(g_calls, 100);
    EXPECT_GT(g_told, 0);
    EXPECT_GT(g_kicked, 0);
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), nullptr);
    zeb_sdk_mqtt_broker_register_auth_callback(b.get(), nullptr);
    zeb_sdk_mqtt_broker_register_acl_callback(b.get(), nullptr);
    EXPECT_TRUE(zeb_test::eventually([&] { return b.online() == 0; }));
    EXPECT_TRUE(mqtt_peer("after").is_served());
}

TEST(sdk_threads, every_function_is_safe_from_any_thread_while_clients_come_and_go) {
    storm({});
}

TEST(sdk_threads, so_it_is_with_low_latency_and_exact_lookup) {
    storm({MQTT_BROKER_OPTION_LOW_LATENCY, MQTT_BROKER_OPTION_EXACT_LOOKUP});
}

}  // namespace

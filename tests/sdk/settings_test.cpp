// What needs no network: texts, defaults, setters, missing arguments.
#include "tests/sdk/sdk_fixture.h"

namespace {

using zeb_test::broker;
using zeb_test::log_capture;

constexpr const char *k_no_handle = "[SDK] invalid broker handle";

TEST(sdk_settings, every_error_code_has_its_text) {
    constexpr struct {
        int code;
        const char *text;
    } k_rows[] = {
        {0, "OK"},
        {-1, "Init failed"},
        {-2, "Invalid parameter"},
        {-3, "Resource error"},
        {-4, "Not running"},
        {-5, "Not found"},
        {-6, "Denied"},
        {-7, "Busy (already running)"},
        {-8, "Timeout"},
        {-9, "Unknown error"},
        {1, "Unknown error"},
    };
    for (const auto &row : k_rows) EXPECT_STREQ(zeb_sdk_mqtt_broker_error_str(row.code), row.text);
    EXPECT_STREQ(zeb_sdk_mqtt_broker_version(), "V2.0.0");
}

TEST(sdk_settings, a_new_instance_has_the_defaults) {
    log_capture log;
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->running, 0);
    EXPECT_EQ(b->keepalive_timeout, 300u);
    EXPECT_EQ(b->max_packet_size, 4096u);
    EXPECT_EQ(b->event_cb, nullptr);
    EXPECT_EQ(b->auth_cb, nullptr);
    EXPECT_EQ(b->acl_cb, nullptr);
    EXPECT_EQ(b->port, 1883);
    EXPECT_EQ(b->max_clients, 5000);
    EXPECT_STREQ(b->data_dir, "./broker_data");
    EXPECT_EQ(b->broker_thread, 0u);
    EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(b), 0);
    zeb_sdk_mqtt_broker_destroy(b);
    const std::string frame = "[SDK] ========================================================";
    EXPECT_TRUE(log.has("INFO", frame));
    EXPECT_TRUE(log.has("INFO", "[SDK]   Version: V2.0.0 "));
    EXPECT_TRUE(log.has("INFO", "[SDK] create broker instance success"));
    EXPECT_TRUE(log.has("INFO", "[SDK] destroy broker instance success"));
    const size_t first = log.text().find(frame);
    const size_t version = log.text().find("Version");
    EXPECT_LT(first, version);
    EXPECT_LT(version, log.text().find(frame, first + 1)) << "the banner is framed";
}

TEST(sdk_settings, a_missing_instance_is_logged_and_refused) {
    mqtt_broker_client_info info;
    const struct {
        const char *name;
        std::function<int()> call;
        int result;
    } rows[] = {
        {"init", [] { return zeb_sdk_mqtt_broker_init(nullptr); }, -2},
        {"start", [] { return zeb_sdk_mqtt_broker_start(nullptr, 1883, 10); }, -2},
        {"stop", [] { return zeb_sdk_mqtt_broker_stop(nullptr); }, -2},
        {"is_running", [] { return zeb_sdk_mqtt_broker_is_running(nullptr); }, 0},
        {"keepalive", [] { return zeb_sdk_mqtt_broker_set_keepalive_timeout(nullptr, 60); }, -2},
        {"packet size", [] { return zeb_sdk_mqtt_broker_set_max_packet_size(nullptr, 4096); }, -2},
        {"info", [&] { return zeb_sdk_mqtt_broker_get_client_info(nullptr, "a", &info); }, -2},
        {"kick", [] { return zeb_sdk_mqtt_broker_kick_client(nullptr, "a"); }, -2},
        {"deinit", [] { return zeb_sdk_mqtt_broker_deinit(nullptr), 0; }, 0},
    };
    for (const auto &row : rows) {
        log_capture log;
        EXPECT_EQ(row.call(), row.result) << row.name;
        EXPECT_TRUE(log.has("ERROR", k_no_handle)) << row.name;
    }
}

TEST(sdk_settings, some_functions_take_no_instance_silently) {
    log_capture log;
    zeb_sdk_mqtt_broker_destroy(nullptr);
    zeb_sdk_mqtt_broker_register_event_callback(nullptr, nullptr);
    zeb_sdk_mqtt_broker_register_auth_callback(nullptr, nullptr);
    zeb_sdk_mqtt_broker_register_acl_callback(nullptr, nullptr);
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_online_count(nullptr), 0);
    EXPECT_EQ(log.text(), "");
}

TEST(sdk_settings, the_keepalive_timeout_lies_between_1_and_3600) {
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    {
        log_capture log;
        for (const int seconds : {0, -1, 3601})
            EXPECT_EQ(zeb_sdk_mqtt_broker_set_keepalive_timeout(b, seconds), -2) << seconds;
        EXPECT_EQ(log.text(), "") << "a bad value is not logged";
    }
    EXPECT_EQ(b->keepalive_timeout, 300u);
    EXPECT_EQ(zeb_sdk_mqtt_broker_set_keepalive_timeout(b, 1), 0);
    EXPECT_EQ(b->keepalive_timeout, 1u);
    log_capture log;
    EXPECT_EQ(zeb_sdk_mqtt_broker_set_keepalive_timeout(b, 3600), 0);
    EXPECT_EQ(b->keepalive_timeout, 3600u);
    zeb_sdk_mqtt_broker_destroy(b);
    EXPECT_TRUE(log.has("INFO", "[SDK] set keepalive timeout = 3600 sec"));
}

TEST(sdk_settings, the_packet_size_lies_between_256_bytes_and_10_mib) {
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    log_capture log;
    for (const int bytes : {255, 0, -1, 10485761})
        EXPECT_EQ(zeb_sdk_mqtt_broker_set_max_packet_size(b, bytes), -2) << bytes;
    EXPECT_EQ(b->max_packet_size, 4096u);
    EXPECT_EQ(zeb_sdk_mqtt_broker_set_max_packet_size(b, 256), 0);
    EXPECT_EQ(b->max_packet_size, 256u);
    EXPECT_EQ(zeb_sdk_mqtt_broker_set_max_packet_size(b, 10485760), 0);
    EXPECT_EQ(b->max_packet_size, 10485760u);
    EXPECT_EQ(log.text(), "");
    zeb_sdk_mqtt_broker_destroy(b);
}

TEST(sdk_settings, a_running_broker_is_not_reconfigured) {
    broker b(10);
    {
        log_capture log(zeb::AGENT_LOG_ERROR);
        EXPECT_EQ(zeb_sdk_mqtt_broker_set_keepalive_timeout(b.get(), 60), -7);
        EXPECT_EQ(zeb_sdk_mqtt_broker_set_keepalive_timeout(b.get(), 0), -7);
        EXPECT_EQ(zeb_sdk_mqtt_broker_set_max_packet_size(b.get(), 1024), -7);
        EXPECT_TRUE(log.has("ERROR", "[SDK] set_keepalive_timeout failed: broker is already running"));
        EXPECT_TRUE(log.has("ERROR", "[SDK] set_max_packet_size failed: broker is already running"));
    }
    EXPECT_EQ(b.get()->keepalive_timeout, 300u);
    EXPECT_EQ(b.get()->max_packet_size, 4096u);
    EXPECT_EQ(zeb_sdk_mqtt_broker_stop(b.get()), 0);
    EXPECT_EQ(zeb_sdk_mqtt_broker_set_keepalive_timeout(b.get(), 60), 0);
    EXPECT_EQ(zeb_sdk_mqtt_broker_set_max_packet_size(b.get(), 1024), 0);
}

TEST(sdk_settings, the_log_level_is_set_for_anybody_and_bad_levels_are_ignored) {
    log_capture log;
    EXPECT_EQ(zeb_sdk_mqtt_broker_set_log_level(nullptr, 3), 0);
    EXPECT_EQ(zeb::g_log_config.level, 3u);
    for (const int level : {5, 1000, -1}) {
        EXPECT_EQ(zeb_sdk_mqtt_broker_set_log_level(nullptr, level), 0);
        EXPECT_EQ(zeb::g_log_config.level, 3u) << level;
    }
}

TEST(sdk_settings, init_sets_the_log_to_warn_on_both_outputs) {
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    EXPECT_EQ(zeb_sdk_mqtt_broker_init(b), 0);
    EXPECT_EQ(zeb::g_log_config.level, static_cast<uint32_t>(zeb::AGENT_LOG_WARN));
    EXPECT_EQ(zeb::g_log_config.output,
              static_cast<uint32_t>(zeb::AGENT_LOG_OUT_STDOUT | zeb::AGENT_LOG_OUT_FILE));
    EXPECT_STREQ(zeb::g_log_file_path, "zeb_flash.txt");
    zeb_sdk_mqtt_broker_deinit(b);
    zeb_sdk_mqtt_broker_destroy(b);
}

TEST(sdk_settings, start_hands_the_packet_size_to_new_connections) {
    broker b;
    ASSERT_EQ(zeb_sdk_mqtt_broker_set_max_packet_size(b.get(), 512), 0);
    ASSERT_EQ(b.start(10), 0);
    EXPECT_EQ(zeb::g_default_max_packet_size, 512u);
    zeb_test::mqtt_peer peer;
    zeb_test::bytes too_long = zeb_test::connect_packet(std::string(600, 'x'));
    ASSERT_TRUE(peer.send(too_long));
    EXPECT_EQ(zeb_test::dump(peer.read()), "E0 00");
    EXPECT_TRUE(peer.closed_somehow());
}

}  // namespace

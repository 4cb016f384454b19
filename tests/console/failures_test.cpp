// What the console prints when the library says no. The linker hands the calls to the functions below.
#include "console_under_test.h"

namespace {

bool g_fails = false;

}  // namespace

extern "C" {
mqtt_broker_instance *__real_zeb_sdk_mqtt_broker_create();
mqtt_broker_instance *__wrap_zeb_sdk_mqtt_broker_create() {
    return g_fails ? nullptr : __real_zeb_sdk_mqtt_broker_create();
}
int __wrap_zeb_sdk_mqtt_broker_init(mqtt_broker_instance *) {
    return MQTT_BROKER_ERR_INIT;
}
int __wrap_zeb_sdk_mqtt_broker_get_client_id_list(mqtt_broker_instance *, char *, int) {
    return MQTT_BROKER_ERR_NOT_FOUND;
}
int __wrap_zeb_sdk_mqtt_broker_get_retain_topic_list(mqtt_broker_instance *, char *, int) {
    return MQTT_BROKER_ERR_NOT_FOUND;
}
int __wrap_zeb_sdk_mqtt_broker_get_stats(mqtt_broker_instance *, mqtt_broker_stats *) {
    return MQTT_BROKER_ERR_PARAM;
}
}

namespace {

bool ends_with(const std::string &text, const std::string &end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

TEST(console_failures, an_instance_that_cannot_be_created) {
    g_fails = true;
    EXPECT_EQ(printed([] { test_start_broker(); }), "[错误] 创建实例失败\n");
    g_fails = false;
    EXPECT_EQ(g_broker.load(), nullptr);
}

TEST(console_failures, a_broker_that_cannot_be_initialised) {
    zeb_sdk_mqtt_broker_set_log_level(nullptr, 4);
    const std::string text = printed([] { test_start_broker(); });
    EXPECT_TRUE(ends_with(text, "[错误] Broker 初始化失败\n")) << text;
    EXPECT_EQ(g_broker.load(), nullptr);
}

TEST(console_failures, what_cannot_be_got_is_said) {
    zeb_sdk_mqtt_broker_set_log_level(nullptr, 4);
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    g_broker.store(b);
    EXPECT_EQ(printed([] { test_get_client_list(); }), "[错误] 获取失败\n");
    EXPECT_EQ(printed([] { test_get_retain_topic_list(); }), "[错误] 获取失败\n");
    EXPECT_EQ(printed([] { test_get_stats(); }), "[错误] 获取统计失败\n");
    EXPECT_EQ(printed([] { test_broker_is_running(); }), "[结果] Broker 运行状态: 已停止\n");
    g_broker.store(nullptr);
    zeb_sdk_mqtt_broker_destroy(b);
}

}  // namespace

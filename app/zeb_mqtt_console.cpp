// The console program: one broker, driven from a numbered menu on standard input and output. It stands where
// an embedding application would, so everything about the broker goes through the public header.
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "app/console_input.h"
#include "log/platform_thread.h"
#include "log/platform_time.h"
#include "sdk/zeb_sdk_mqtt_broker.h"

using namespace zeb;

namespace {

constexpr int k_port = 1883;
constexpr int k_max_clients = 9000;
constexpr int k_keepalive_s = 300;
constexpr int k_max_packet_bytes = 4096;
constexpr int k_log_level_warn = 2;
constexpr int k_log_level_max = 4;
constexpr uint64_t k_menu_pause_us = 1000000;
constexpr uint64_t k_stats_period_us = 15000000;

constexpr std::size_t k_client_id_bytes = 128;  // as long as the public record's
constexpr std::size_t k_topic_bytes = 256;
constexpr std::size_t k_payload_bytes = 512;
constexpr std::size_t k_id_list_bytes = 2048;
constexpr std::size_t k_topic_list_bytes = 1024;

constexpr char k_banner_line[] = "=====================================================\n";
constexpr char k_menu_line[] = "===========================================\n";

// The main thread writes these three, the statistics thread reads them. Relaxed is enough: that thread is
// created after the instance is stored and joined before it is forgotten, and a flag seen late only costs it
// one more round.
std::atomic<mqtt_broker_instance *> g_broker{nullptr};
std::atomic<int> g_run_flag{1};
std::atomic<int> g_stats_enable{0};  // also says that g_stats_thread is there to be joined
pthread_t g_stats_thread;

// Callbacks. They run on the broker's threads; each prints one line in one call, so that lines stay whole.

int auth_cb(mqtt_broker_instance *, const mqtt_connect_para *, const char *, const char *) {
    return 1;
}

int acl_cb(mqtt_broker_instance *, const char *client_id, const char *topic, uint8_t action) {
    printf("[APP-ACL] %s | client=%s | topic=%s\n", action != 0 ? "PUBLISH" : "SUBSCRIBE", client_id, topic);
    return 1;
}

int event_cb(mqtt_broker_instance *, uint32_t event, const char *json) {
    static constexpr const char *k_names[] = {"客户端上线", "客户端下线",     "客户端发布",
                                              "客户端订阅", "客户端取消订阅", "遗嘱消息触发"};
    static_assert(sizeof k_names / sizeof k_names[0] == MQTT_BROKER_EVENT_WILL + 1);
    printf("[APP-Event] %s | %s\n", event <= MQTT_BROKER_EVENT_WILL ? k_names[event] : "UNKNOWN", json);
    return 0;
}

// Questions. Output is flushed first: without its line feed a prompt would stay in the buffer.

void prompt(const char *text) {
    fputs(text, stdout);
    fflush(stdout);
}

int ask_number(const char *text, int unless_readable) {
    prompt(text);
    int value = unless_readable;
    (void)input_read_int(stdin, &value);  // keeps the value when there is no number
    return value;
}

// An empty text at the end of the input.
template <std::size_t Size>
void ask_word(const char *text, char (&buf)[Size]) {
    prompt(text);
    buf[0] = '\0';
    (void)input_read_word(stdin, buf, Size);
}

// The text that is in buf already stands at the end of the input only; an empty line is an empty text.
template <std::size_t Size>
void ask_line(const char *text, char (&buf)[Size]) {
    prompt(text);
    (void)input_read_line(stdin, buf, Size);
}

void print_outcome(int code, const char *success, const char *failure) {
    fputs(code == MQTT_BROKER_OK ? success : failure, stdout);
}

// The instance, or null after having said that there is none.
mqtt_broker_instance *require_broker() {
    mqtt_broker_instance *b = g_broker.load(std::memory_order_relaxed);
    if (b == nullptr) fputs("[错误] Broker 未启动\n", stdout);
    return b;
}

// Statistics thread.

void print_periodic_stats() {
    mqtt_broker_instance *b = g_broker.load(std::memory_order_relaxed);
    mqtt_broker_stats stats;
    if (b == nullptr || zeb_sdk_mqtt_broker_is_running(b) == 0) return;
    if (zeb_sdk_mqtt_broker_get_stats(b, &stats) != MQTT_BROKER_OK) return;
    printf("\n%s📊 周期统计 | 在线:%d | 消息:%u | 订阅:%u | 运行:%u秒\n%s", k_banner_line, stats.online,
           stats.total_messages, stats.total_subscriptions, stats.uptime_seconds, k_banner_line);
}

void *stats_timer_thread(void *) {
    if (g_stats_enable.load(std::memory_order_relaxed) == 0) return nullptr;
    while (g_run_flag.load(std::memory_order_relaxed) != 0) {
        platform_sleep_us(k_stats_period_us);
        print_periodic_stats();
        if (g_stats_enable.load(std::memory_order_relaxed) == 0) break;
    }
    return nullptr;
}

void start_stats_thread() {
    g_stats_enable.store(1, std::memory_order_relaxed);
    // Without a thread the broker serves all the same, only the periodic line is missing.
    if (platform_thread_start(&g_stats_thread, "zeb-app-stats", stats_timer_thread, nullptr) != 0)
        g_stats_enable.store(0, std::memory_order_relaxed);
}

void stop_stats_thread() {
    if (g_stats_enable.exchange(0, std::memory_order_relaxed) != 0) pthread_join(g_stats_thread, nullptr);
}

// Actions, one per item of the menu.

void configure(mqtt_broker_instance *b) {
    zeb_sdk_mqtt_broker_register_auth_callback(b, auth_cb);
    zeb_sdk_mqtt_broker_register_acl_callback(b, acl_cb);
    zeb_sdk_mqtt_broker_register_event_callback(b, event_cb);
    fputs("[OK] 注册回调成功\n", stdout);
    // Both values are in range and the broker is not running: neither call can fail.
    (void)zeb_sdk_mqtt_broker_set_keepalive_timeout(b, k_keepalive_s);
    (void)zeb_sdk_mqtt_broker_set_max_packet_size(b, k_max_packet_bytes);
    fputs("[OK] 参数配置完成\n", stdout);
}

// Whether the instance is up; what a failure leaves is for the caller to destroy.
bool bring_up(mqtt_broker_instance *b) {
    configure(b);
    if (zeb_sdk_mqtt_broker_init(b) != MQTT_BROKER_OK) {
        fputs("[错误] Broker 初始化失败\n", stdout);
        return false;
    }
    (void)zeb_sdk_mqtt_broker_set_log_level(b, k_log_level_warn);
    fputs("[OK] Broker 初始化成功\n", stdout);
    if (zeb_sdk_mqtt_broker_start(b, k_port, k_max_clients) != MQTT_BROKER_OK) {
        fputs("[错误] Broker 启动失败（端口被占用？）\n", stdout);
        zeb_sdk_mqtt_broker_deinit(b);
        return false;
    }
    return true;
}

void test_start_broker() {
    if (g_broker.load(std::memory_order_relaxed) != nullptr) {
        fputs("[错误] Broker 已启动\n", stdout);
        return;
    }
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    if (b == nullptr) {
        fputs("[错误] 创建实例失败\n", stdout);
        return;
    }
    fputs("[OK] 创建 Broker 实例成功\n", stdout);
    if (!bring_up(b)) {
        zeb_sdk_mqtt_broker_destroy(b);
        return;
    }
    g_broker.store(b, std::memory_order_relaxed);
    printf("\n===== Broker 启动成功 监听端口：%d =====\n", k_port);
    start_stats_thread();
}

void test_stop_broker() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    stop_stats_thread();
    (void)zeb_sdk_mqtt_broker_stop(b);  // fails only inside a callback
    zeb_sdk_mqtt_broker_deinit(b);
    g_broker.store(nullptr, std::memory_order_relaxed);
    zeb_sdk_mqtt_broker_destroy(b);
    fputs("[OK] Broker 已停止并销毁\n", stdout);
}

void test_get_online_count() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    printf("[结果] 当前在线客户端：%d\n", zeb_sdk_mqtt_broker_get_online_count(b));
}

void test_get_client_list() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    char list[k_id_list_bytes];
    if (zeb_sdk_mqtt_broker_get_client_id_list(b, list, sizeof list) != MQTT_BROKER_OK)
        fputs("[错误] 获取失败\n", stdout);
    else
        printf("[结果] 在线客户端列表：%s\n", list);
}

void test_get_client_info() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    char client_id[k_client_id_bytes];
    ask_word("请输入要查询的 client_id：", client_id);
    mqtt_broker_client_info info;
    if (zeb_sdk_mqtt_broker_get_client_info(b, client_id, &info) != MQTT_BROKER_OK) {
        fputs("[错误] 未找到客户端\n", stdout);
        return;
    }
    printf(
        "\n===== 客户端信息 =====\n"
        "client_id:    %s\n"
        "ip:           %s\n"
        "port:         %d\n"
        "keepalive:    %d 秒\n"
        "在线状态:     %s\n"
        "连接时长:     %u 秒\n",
        info.client_id, info.ip, info.port, info.keepalive, info.online != 0 ? "在线" : "离线",
        info.connected_seconds);
}

void test_kick_client() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    char client_id[k_client_id_bytes];
    ask_word("请输入要踢掉的 client_id：", client_id);
    print_outcome(zeb_sdk_mqtt_broker_kick_client(b, client_id), "[OK] 踢人成功\n", "[错误] 踢人失败\n");
}

void test_server_publish() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    char topic[k_topic_bytes] = "test/topic";
    char payload[k_payload_bytes] = "Hello from ZEB Broker SDK";
    prompt("请输入主题 (默认: test/topic)：");
    input_skip_char(stdin);  // the line feed behind the number that chose this item
    (void)input_read_line(stdin, topic, sizeof topic);
    ask_line("请输入报文内容 (默认: Hello from ZEB Broker SDK)：", payload);
    const int qos = ask_number("请输入 QoS (0/1/2)：", 0);
    const int retain = ask_number("是否保留消息 (0=否,1=是)：", 0);
    const int expiry_s = ask_number("消息过期时间（秒，0=永不过期）：", 0);
    const int code = zeb_sdk_mqtt_broker_publish(
        b, topic, reinterpret_cast<const uint8_t *>(payload), static_cast<int>(strlen(payload)),
        static_cast<uint32_t>(qos), retain != 0 ? 1 : 0, static_cast<uint32_t>(expiry_s));
    if (code != MQTT_BROKER_OK)
        printf("[错误] 发布失败，错误码：%d -> %s\n\n", code, zeb_sdk_mqtt_broker_error_str(code));
    else
        fputs("[OK] 服务端发布成功\n\n", stdout);
}

void test_clear_retain() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    char topic[k_topic_bytes];
    ask_word("请输入要清除的保留消息主题：", topic);
    print_outcome(zeb_sdk_mqtt_broker_clear_retain(b, topic), "[OK] 清除成功\n", "[错误] 清除失败\n");
}

void test_get_stats() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    mqtt_broker_stats stats;
    if (zeb_sdk_mqtt_broker_get_stats(b, &stats) != MQTT_BROKER_OK) {
        fputs("[错误] 获取统计失败\n", stdout);
        return;
    }
    printf(
        "\n===== Broker 统计 =====\n"
        "在线客户端: %d\n"
        "总消息数: %u\n"
        "总订阅数: %u\n"
        "运行时间: %u 秒\n",
        stats.online, stats.total_messages, stats.total_subscriptions, stats.uptime_seconds);
}

void test_broker_is_running() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    printf("[结果] Broker 运行状态: %s\n", zeb_sdk_mqtt_broker_is_running(b) != 0 ? "运行中" : "已停止");
}

void test_get_retain_topic_list() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    char list[k_topic_list_bytes];
    if (zeb_sdk_mqtt_broker_get_retain_topic_list(b, list, sizeof list) != MQTT_BROKER_OK)
        fputs("[错误] 获取失败\n", stdout);
    else
        printf("[结果] 保留消息主题：%s\n", list);
}

void test_error_str() {
    constexpr int k_shown[] = {MQTT_BROKER_OK, MQTT_BROKER_ERR_PARAM, MQTT_BROKER_ERR_NOT_FOUND,
                               MQTT_BROKER_ERR_DENIED};
    fputs("\n===== 错误码说明测试 =====\n", stdout);
    for (const int code : k_shown) printf("错误码 %d -> %s\n", code, zeb_sdk_mqtt_broker_error_str(code));
}

void test_set_log_level() {
    mqtt_broker_instance *b = require_broker();
    if (b == nullptr) return;
    fputs(
        "\n日志级别说明：\n"
        " 0 = DEBUG (最详细)\n"
        " 1 = INFO\n"
        " 2 = WARN\n"
        " 3 = ERROR\n"
        " 4 = FATAL\n",
        stdout);
    const int level = ask_number("请输入日志级别(0-4)：", -1);
    if (level < 0 || level > k_log_level_max) {
        fputs("[错误] 无效级别\n", stdout);
        return;
    }
    (void)zeb_sdk_mqtt_broker_set_log_level(b, level);  // in range: cannot fail
    printf("[OK] 日志级别已设置为 %d\n", level);
}

void leave_menu() {
    g_run_flag.store(0, std::memory_order_relaxed);
}

// The menu.

struct menu_item {
    int choice;
    const char *text;
    void (*action)();
};

constexpr menu_item k_menu[] = {
    {1, " 1. 创建并启动 Broker (端口:1883)\n", test_start_broker},
    {2, " 2. 停止并销毁 Broker\n", test_stop_broker},
    {3, " 3. 获取在线客户端数量\n", test_get_online_count},
    {4, " 4. 获取客户端 ID 列表\n", test_get_client_list},
    {5, " 5. 查询客户端详细信息\n", test_get_client_info},
    {6, " 6. 踢掉指定客户端\n", test_kick_client},
    {7, " 7. Broker 服务端发布消息\n", test_server_publish},
    {8, " 8. 清除保留消息\n", test_clear_retain},
    {9, " 9. 获取 Broker 统计信息\n", test_get_stats},
    {10, " 10. 查看 Broker 运行状态\n", test_broker_is_running},
    {11, " 11. 查看保留消息主题列表\n", test_get_retain_topic_list},
    {12, " 12. 测试错误码字符串\n", test_error_str},
    {13, " 13. 设置日志级别\n", test_set_log_level},
    {0, " 0. 退出程序\n", leave_menu},
};

void show_menu() {
    printf("%s  Tevanor MQTT Broker SDK 测试工具 V2.0\n%s", k_menu_line, k_menu_line);
    for (const menu_item &item : k_menu) fputs(item.text, stdout);
    prompt("请输入选择：");
}

void run_choice(int choice) {
    for (const menu_item &item : k_menu) {
        if (item.choice == choice) {
            item.action();
            return;
        }
    }
    fputs("输入错误！\n", stdout);
}

}  // namespace

int main() {
    // Who reads this through a pipe is to see every line when it is printed.
    (void)setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    printf("%s  Tevanor科技 MQTT Broker SDK V2.0 测试程序\n  版本：%s\n%s", k_banner_line,
           zeb_sdk_mqtt_broker_version(), k_banner_line);
    while (g_run_flag.load(std::memory_order_relaxed) != 0) {
        show_menu();
        int choice = 0;  // kept when there is no number: what cannot be read ends the program
        (void)input_read_int(stdin, &choice);
        run_choice(choice);
        platform_sleep_us(k_menu_pause_us);
    }
    if (g_broker.load(std::memory_order_relaxed) != nullptr) test_stop_broker();
    fputs("程序正常退出\n", stdout);
    return 0;
}

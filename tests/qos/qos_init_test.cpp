// Starting and ending the scan threads, by the real clock.
#include <dirent.h>

#include <thread>

#include "tests/qos/qos_fixture.h"

namespace {

using zeb::qos_reliable_destroy;
using zeb::qos_reliable_init;
using zeb_test::log_capture;

int scan_threads() {
    DIR *tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return -1;
    int count = 0;
    while (const dirent *entry = readdir(tasks)) {
        char path[300];
        snprintf(path, sizeof path, "/proc/self/task/%s/comm", entry->d_name);
        FILE *file = fopen(path, "re");
        if (file == nullptr) continue;
        char name[32] = "";
        if (fgets(name, sizeof name, file) != nullptr && strcmp(name, "zeb-qos\n") == 0) ++count;
        fclose(file);
    }
    closedir(tasks);
    return count;
}

// A thread stays listed for a moment after it was joined.
int settled_scan_threads(int expected) {
    int count = scan_threads();
    for (int ms = 0; ms < 10000 && count != expected; ++ms) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        count = scan_threads();
    }
    return count;
}

// Short sleeps, so that a destroy need not wait for a whole period; time itself is the real one.
const zeb::platform_clock k_impatient{
    nullptr, nullptr, [](uint64_t us) { std::this_thread::sleep_for(std::chrono::microseconds(us / 100)); }};

class qos_init : public testing::Test {
  protected:
    void SetUp() override { zeb::platform_set_clock(&k_impatient); }
    void TearDown() override {
        qos_reliable_destroy();
        zeb::platform_set_clock(nullptr);
    }
    // Not at DEBUG: the scan threads would log too, and of lines that meet one is lost.
    log_capture log_{zeb::AGENT_LOG_INFO};
};

TEST_F(qos_init, twice_runs_two_threads_and_destroy_joins_both) {
    EXPECT_EQ(qos_reliable_init(), 0);
    EXPECT_EQ(settled_scan_threads(1), 1);
    const pthread_t first = zeb::g_scan_thread;
    EXPECT_EQ(qos_reliable_init(), 0);
    EXPECT_EQ(settled_scan_threads(2), 2);
    EXPECT_FALSE(pthread_equal(zeb::g_scan_thread, first));
    EXPECT_EQ(zeb::g_scan_running, 1);
    qos_reliable_destroy();
    EXPECT_EQ(settled_scan_threads(0), 0);
    EXPECT_EQ(zeb::g_scan_running, 0);
    EXPECT_TRUE(log_.has("INFO", "[QoS] 可靠投递模块初始化成功"));
    EXPECT_TRUE(log_.has("INFO", "[QoS] 可靠投递模块已销毁，共清理0条未完成报文"));
}

TEST_F(qos_init, a_destroy_without_an_init_is_harmless) {
    qos_reliable_destroy();
    qos_reliable_destroy();
    EXPECT_EQ(settled_scan_threads(0), 0);
    EXPECT_EQ(qos_reliable_init(), 0);
    EXPECT_EQ(settled_scan_threads(1), 1);
}

TEST_F(qos_init, fifty_times_leaves_no_thread_behind) {
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(qos_reliable_init(), 0);
        ASSERT_EQ(qos_reliable_init(), 0);
        qos_reliable_destroy();
        ASSERT_EQ(settled_scan_threads(0), 0);
    }
}

TEST_F(qos_init, beyond_four_calls_the_threads_that_run_must_do) {
    for (int i = 0; i < 6; ++i) EXPECT_EQ(qos_reliable_init(), 0);
    EXPECT_EQ(settled_scan_threads(4), 4);
    qos_reliable_destroy();
    EXPECT_EQ(settled_scan_threads(0), 0);
    EXPECT_TRUE(log_.has("WARN", "[QoS] init called again, 4 scan threads run already"));
}

TEST_F(qos_init, the_broker_runs_two_scan_threads_and_repeats_by_itself) {
    ASSERT_EQ(qos_reliable_init(), 0);
    ASSERT_EQ(zeb::client_mgr_init(100), 0);
    zeb::mqtt_stop_send_thread();
    EXPECT_EQ(settled_scan_threads(2), 2);
    zeb::mqtt_client *client = zeb::client_create(1, "10.0.0.1", 4000, nullptr);
    zeb::mqtt_publish_para pub{};
    strcpy(pub.topic, "t");
    const uint8_t payload = 'x';
    ASSERT_EQ(zeb::qos_reliable_add_packet(client, 1, 1, &pub, &payload, 1), 0);
    {
        std::lock_guard lock(zeb::g_queue_mutex);
        zeb::g_pending_queue->last_send_ms = 0;
    }
    std::vector<std::string> sent;
    for (int i = 0; i < 20000 && sent.empty(); ++i) {
        sent = zeb_test::take_sent(client);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(sent, zeb_test::packets({"32 06 00 01 't' 00 01 'x'"}));
    zeb::client_mgr_deinit();
    EXPECT_EQ(settled_scan_threads(0), 0);
    EXPECT_EQ(zeb::g_pending_queue, nullptr);
}

}  // namespace

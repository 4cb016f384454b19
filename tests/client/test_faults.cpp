// Memory or threads that cannot be had, for which the linker (--wrap) puts these functions before the real
// ones. What fails must leave nothing behind, and succeed once there is enough again.
#include <pthread.h>

#include <cerrno>

#include "sdk/zeb_sdk_mqtt_broker.h"
#include "tests/client/client_fixture.h"
#include "tests/client/mqtt_peer.h"

namespace {

// Lets `skip` calls pass, then makes one fail; counts all of them while it is armed.
struct fault {
    std::atomic<int> skip{-1};
    std::atomic<int> calls{0};

    void arm(int passing) {
        calls = 0;
        skip = passing;
    }
    void disarm() { skip = -1; }
    bool strikes() { return skip >= 0 && calls++ == skip; }
};

fault g_thread_fault;
fault g_calloc_fault;
fault g_malloc_fault;
fault g_pages_fault;

}  // namespace

extern "C" {

int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
void *__real_calloc(size_t, size_t);
void *__real_malloc(size_t);
void *__real__ZN3zeb19platform_zero_allocEm(size_t);

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*entry)(void *), void *arg) {
    return g_thread_fault.strikes() ? EAGAIN : __real_pthread_create(thread, attr, entry, arg);
}
void *__wrap_calloc(size_t n, size_t size) {
    return g_calloc_fault.strikes() ? nullptr : __real_calloc(n, size);
}
void *__wrap_malloc(size_t size) {
    return g_malloc_fault.strikes() ? nullptr : __real_malloc(size);
}
void *__wrap__ZN3zeb19platform_zero_allocEm(size_t size) {
    return g_pages_fault.strikes() ? nullptr : __real__ZN3zeb19platform_zero_allocEm(size);
}

}  // extern "C"

namespace {

using zeb::g_client_mgr;
using zeb_test::client_test;
using zeb_test::log_capture;
using zeb_test::mqtt_client;
using zeb_test::open_descriptors;
using zeb_test::running_threads;

class client_faults : public client_test {
  protected:
    void TearDown() override {
        for (fault *f : {&g_thread_fault, &g_calloc_fault, &g_malloc_fault, &g_pages_fault}) f->disarm();
        client_test::TearDown();
    }
    static void expect_nothing_left() {
        EXPECT_EQ(g_client_mgr.initialized, 0);
        EXPECT_EQ(g_client_mgr.block_count, 0);
        EXPECT_EQ(g_client_mgr.capacity, 0);
        EXPECT_EQ(g_client_mgr.blocks, nullptr);
        EXPECT_FALSE(zeb::g_send_running);
    }
};

TEST_F(client_faults, without_memory_for_the_block_list_init_fails) {
    zeb::client_mgr_deinit();
    g_calloc_fault.arm(0);
    log_capture log;
    EXPECT_EQ(zeb::client_mgr_init(100), -1);
    EXPECT_TRUE(log.has("ERROR", "malloc pools failed"));
    expect_nothing_left();
    EXPECT_EQ(zeb::client_mgr_init(100), 0);
}

TEST_F(client_faults, without_memory_for_any_one_block_init_fails) {
    zeb::client_mgr_deinit();
    const size_t threads = running_threads();
    for (int block = 0; block < 3; ++block) {
        g_pages_fault.arm(block);
        EXPECT_EQ(zeb::client_mgr_init(300), -1) << block;
        expect_nothing_left();
        EXPECT_EQ(create(1), nullptr);
    }
    EXPECT_EQ(running_threads(), threads);
    g_pages_fault.disarm();
    EXPECT_EQ(zeb::client_mgr_init(300), 0);
}

TEST_F(client_faults, without_any_one_of_its_threads_init_fails) {
    g_thread_fault.arm(1000);
    ASSERT_EQ(zeb::client_mgr_init(100), 0);
    const int needed = g_thread_fault.calls;
    ASSERT_GE(needed, 1);
    zeb::client_mgr_deinit();
    const size_t threads = running_threads();
    for (int failing = 0; failing < needed; ++failing) {
        g_thread_fault.arm(failing);
        EXPECT_EQ(zeb::client_mgr_init(100), -1) << failing;
        expect_nothing_left();
        EXPECT_EQ(running_threads(), threads) << failing;
    }
    g_thread_fault.disarm();
    EXPECT_EQ(zeb::client_mgr_init(100), 0);
}

TEST_F(client_faults, a_ring_that_cannot_be_had_drops_the_packet_as_invalid) {
    mqtt_client *const client = create(1);
    const uint8_t ping[] = {0xD0, 0};
    g_pages_fault.arm(0);
    EXPECT_EQ(zeb::client_send(client, ping, sizeof ping), -1);
    EXPECT_EQ(zeb::g_mqtt_stats.drop_invalid_param, 1u);
    EXPECT_EQ(client->send_ring, nullptr);
    EXPECT_EQ(zeb::client_send(client, ping, sizeof ping), 0) << "the next one tries again";
    EXPECT_EQ(packet(client, 0), (zeb_test::bytes{0xD0, 0}));
}

TEST_F(client_faults, a_will_that_cannot_be_copied_takes_the_earlier_one_along) {
    mqtt_client *const client = create(1, "c");
    for (int copy = 0; copy < 2; ++copy) {  // topic, payload
        give_will(client);
        ASSERT_EQ(client->will_msg_used, 1);
        const uint8_t payload[] = {1, 2};
        log_capture log(zeb::AGENT_LOG_INFO);
        g_malloc_fault.arm(copy);
        zeb::client_set_will_msg(client, "other", payload, sizeof payload, 1, 0);
        g_malloc_fault.disarm();
        EXPECT_EQ(client->will_msg_used, 0);
        EXPECT_EQ(client->will_topic, nullptr);
        EXPECT_EQ(client->will_payload, nullptr);
        EXPECT_TRUE(log.has("INFO",
                            "[遗嘱调试][设置成功] ClientID=c, 最终存储：topic=other, payload_len=2, "
                            "qos=1, retain=0, will_msg_used=0"));
    }
    zeb::client_close(client);
    EXPECT_EQ(zeb::g_mqtt_stats.will_sent, 0u);
}

class sdk_faults : public testing::Test {
  protected:
    void SetUp() override {
        b = zeb_sdk_mqtt_broker_create();
        ASSERT_EQ(zeb_sdk_mqtt_broker_init(b), 0);
        zeb_sdk_mqtt_broker_set_log_level(b, zeb::AGENT_LOG_FATAL);
    }
    void TearDown() override {
        g_thread_fault.disarm();
        g_calloc_fault.disarm();
        zeb_sdk_mqtt_broker_stop(b);
        zeb_sdk_mqtt_broker_deinit(b);
        zeb_sdk_mqtt_broker_destroy(b);
    }
    mqtt_broker_instance *b = nullptr;
};

TEST_F(sdk_faults, without_memory_there_is_no_instance) {
    log_capture log;
    g_calloc_fault.arm(0);
    EXPECT_EQ(zeb_sdk_mqtt_broker_create(), nullptr);
    g_calloc_fault.disarm();
    EXPECT_TRUE(log.has("ERROR", "[SDK] calloc instance failed"));
}

TEST_F(sdk_faults, start_fails_whole_without_any_one_of_its_threads_but_housekeeping) {
    ASSERT_EQ(zeb_sdk_mqtt_broker_start(b, 1883, 100), 0);
    zeb_sdk_mqtt_broker_deinit(b);
    ASSERT_EQ(zeb_sdk_mqtt_broker_init(b), 0);
    zeb_sdk_mqtt_broker_set_log_level(b, zeb::AGENT_LOG_FATAL);
    g_thread_fault.arm(1000);
    ASSERT_EQ(zeb_sdk_mqtt_broker_start(b, 1883, 100), 0);
    const int needed = g_thread_fault.calls;
    zeb_sdk_mqtt_broker_deinit(b);
    const size_t threads = running_threads();
    const size_t descriptors = open_descriptors();
    for (int failing = 0; failing < needed - 1; ++failing) {
        g_thread_fault.arm(failing);
        EXPECT_EQ(zeb_sdk_mqtt_broker_start(b, 1883, 100), -3) << failing;
        EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(b), 0);
        EXPECT_EQ(running_threads(), threads) << failing;
        EXPECT_EQ(open_descriptors(), descriptors) << failing;
    }
    g_thread_fault.disarm();
    EXPECT_EQ(zeb_sdk_mqtt_broker_start(b, 1883, 100), 0);
    EXPECT_TRUE(zeb_test::mqtt_peer("c").is_served());
}

TEST_F(sdk_faults, without_housekeeping_the_broker_serves_and_stops_all_the_same) {
    g_thread_fault.arm(1000);
    ASSERT_EQ(zeb_sdk_mqtt_broker_start(b, 1883, 100), 0);
    const int needed = g_thread_fault.calls;
    zeb_sdk_mqtt_broker_stop(b);
    zeb_sdk_mqtt_broker_deinit(b);
    ASSERT_EQ(zeb_sdk_mqtt_broker_init(b), 0);
    log_capture log(zeb::AGENT_LOG_ERROR);
    g_thread_fault.arm(needed - 1);
    EXPECT_EQ(zeb_sdk_mqtt_broker_start(b, 1883, 100), 0);
    EXPECT_TRUE(
        log.has("ERROR", "[SDK] cannot start the housekeeping thread: error " + std::to_string(EAGAIN)));
    EXPECT_EQ(b->broker_thread, 0u);
    EXPECT_TRUE(zeb_test::mqtt_peer("c").is_served());
    EXPECT_EQ(zeb_sdk_mqtt_broker_stop(b), 0);
}

}  // namespace

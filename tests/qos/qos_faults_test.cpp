// What is left when memory runs out or a thread cannot be started. This program replaces the allocations and
// the thread start that the queue uses.
#include <cerrno>
#include <cstdlib>
#include <new>

#include "log/platform_memory.h"
#include "log/platform_thread.h"
#include "tests/qos/qos_fixture.h"

namespace {

bool g_tables_fail = false;
bool g_nodes_fail = false;
bool g_buffers_fail = false;
int g_threads_left = 1000;  // thread starts that still succeed

}  // namespace

void *zeb::platform_zero_alloc(std::size_t size) {
    return g_tables_fail ? nullptr : std::calloc(1, size);
}

void zeb::platform_zero_free(void *block, std::size_t) {
    std::free(block);
}

int zeb::platform_thread_start(pthread_t *thread, const char *, void *(*entry)(void *), void *arg) {
    return g_threads_left-- > 0 ? pthread_create(thread, nullptr, entry, arg) : EAGAIN;
}

void *operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept {
    return g_nodes_fail ? nullptr : operator new(size, alignment);
}

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return g_buffers_fail ? nullptr : operator new[](size);
}

namespace {

using zeb::g_pending_queue;
using zeb_test::log_capture;
using zeb_test::packets;
using zeb_test::take_sent;

class qos_faults : public zeb_test::qos_test {
  protected:
    void TearDown() override {
        g_tables_fail = g_nodes_fail = g_buffers_fail = false;
        g_threads_left = 1000;
        qos_test::TearDown();
    }
    void expect_refused(const char *line) {
        log_capture &log = listen();
        const int before = a_->inflight;
        EXPECT_EQ(add(a_, 2), -1);
        EXPECT_TRUE(log.has("ERROR", line)) << log.text();
        EXPECT_EQ(a_->inflight, before);
    }
};

TEST_F(qos_faults, without_memory_for_a_node_the_queue_stays_as_it_is) {
    ASSERT_EQ(add(a_, 1), 0);
    g_nodes_fail = true;
    expect_refused("[QoS] 添加报文失败：分配报文节点内存失败");
    EXPECT_EQ(queue(), "alice:1 ");
}

TEST_F(qos_faults, without_memory_for_the_payload_the_queue_stays_as_it_is) {
    ASSERT_EQ(add(a_, 1), 0);
    g_buffers_fail = true;
    expect_refused("[QoS] 添加报文失败：分配payload内存失败（需要5字节）");
    EXPECT_EQ(queue(), "alice:1 ");
}

TEST_F(qos_faults, without_memory_for_the_table_of_addresses_nothing_is_registered) {
    g_tables_fail = true;
    expect_refused("[QoS] 添加报文失败：分配报文节点内存失败");
    EXPECT_EQ(g_pending_queue, nullptr);
    zeb::qos_reliable_scan_queue();
    g_tables_fail = false;
    EXPECT_EQ(add(a_, 2), 0);
}

TEST_F(qos_faults, a_repetition_without_a_buffer_is_tried_again) {
    ASSERT_EQ(add(a_, 1, 1, "t", "x"), 0);
    g_buffers_fail = true;
    log_capture &log = listen();
    pass_after(1001);
    EXPECT_TRUE(log.has("ERROR", "[QoS] 重发报文失败：分配发送缓冲区失败（需要267字节）"));
    EXPECT_EQ(g_pending_queue->retry_count, 0u);
    g_buffers_fail = false;
    pass_after(0);
    EXPECT_EQ(take_sent(a_), packets({"32 06 00 01 't' 00 01 'x'"}));
}

TEST_F(qos_faults, an_init_without_a_thread_fails_and_can_be_tried_again) {
    g_threads_left = 0;
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(zeb::qos_reliable_init(), -1);
    EXPECT_EQ(zeb::g_scan_running, 0);
    EXPECT_TRUE(log.has(
        "ERROR", "[QoS] 创建扫描线程失败，Linux错误码：11（描述：" + std::string(strerror(EAGAIN)) + "）"));
    EXPECT_EQ(log.text().find("初始化成功"), std::string::npos);
    g_threads_left = 1;
    EXPECT_EQ(zeb::qos_reliable_init(), 0);
    zeb::qos_reliable_destroy();
}

TEST_F(qos_faults, a_second_init_that_fails_leaves_the_first_thread_running) {
    g_threads_left = 1;
    ASSERT_EQ(zeb::qos_reliable_init(), 0);
    const pthread_t first = zeb::g_scan_thread;
    EXPECT_EQ(zeb::qos_reliable_init(), -1);
    EXPECT_EQ(zeb::g_scan_running, 1);
    EXPECT_TRUE(pthread_equal(zeb::g_scan_thread, first));
    zeb::qos_reliable_destroy();
    EXPECT_EQ(zeb::g_scan_running, 0);
}

}  // namespace

// The scan: what of the queue is due, expired or out of patience; and the threads that run it.
#include <cstring>

#include "log/agent_log.h"
#include "log/platform_thread.h"
#include "log/platform_time.h"
#include "qos/qos_queue.h"

namespace zeb {

pthread_t g_scan_thread;
std::atomic<uint8_t> g_scan_running{0};

namespace {

constexpr int k_max_scan_threads = 4;
constexpr uint32_t k_prefetch_ahead = 16;
constexpr uint64_t k_ms_per_s = 1000;

struct scan_result {
    int resent = 0;
    int dropped = 0;
};

// Which scan threads run. Never taken by a scan thread, so that it may be held while they are joined.
std::mutex s_threads_lock;
pthread_t s_threads[k_max_scan_threads];
int s_thread_count = 0;

bool is_expired(const qos_packet &pkt, uint64_t now) {
    return pkt.expiry_sec != 0 && now >= pkt.created_ms + pkt.expiry_sec * k_ms_per_s;
}

// From PUBREC on neither the PUBLISH nor the PUBREL is repeated.
bool is_due(const qos_packet &pkt, uint64_t now) {
    return pkt.qos2_state < 2 && now - pkt.last_send_ms > pkt.retry_interval_ms;
}

void repeat(qos_node *node, scan_result *result) {
    qos_packet *pkt = &node->packet;
    if (pkt->client != nullptr && !qos_node_is_live(node)) {
        qos_queue_erase(pkt);  // its connection is over: not a message that was given up
    } else if (pkt->retry_count >= QOS_MAX_RETRY) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 报文重试次数超限(msg_id=%d)，丢弃", pkt->msg_id);
        qos_queue_erase(pkt);
        ++result->dropped;
    } else if (send_packet(pkt) == 0) {
        ++result->resent;
    }
}

void visit(qos_node *node, uint64_t now, scan_result *result) {
    qos_packet *pkt = &node->packet;
    if (is_expired(*pkt, now)) {
        ZEB_LOG(AGENT_LOG_WARN, "[QoS/Expiry] 消息已过期，自动丢弃: msg_id=%u, topic=%s", pkt->msg_id,
                pkt->topic);
        qos_queue_erase(pkt);
        ++result->dropped;
    } else if (is_due(*pkt, now)) {
        repeat(node, result);
    }
}

scan_result scan_all() {
    scan_result result;
    std::lock_guard lock(g_queue_mutex);
    const uint64_t now = platform_mono_ms();  // not before the lock: no node may be younger
    const qos_queue_view view = qos_queue_all();
    for (uint32_t i = view.count; i-- > 0;) {
        if (i >= k_prefetch_ahead && view.nodes[i - k_prefetch_ahead] != nullptr)
            __builtin_prefetch(&view.nodes[i - k_prefetch_ahead]->packet.payload_len);
        if (view.nodes[i] != nullptr) visit(view.nodes[i], now, &result);
    }
    return result;
}

}  // namespace

void qos_reliable_scan_queue() {
    const scan_result result = scan_all();
    if (result.resent + result.dropped > 0)
        ZEB_LOG(AGENT_LOG_DEBUG, "[QoS] 队列扫描完成：重发%d条，丢弃%d条", result.resent, result.dropped);
}

void *scan_queue_thread(void *) {
    ZEB_LOG(AGENT_LOG_DEBUG, "[QoS] 队列扫描线程启动");
    while (g_scan_running.load(std::memory_order_relaxed) != 0) {
        qos_reliable_scan_queue();
        platform_sleep_us(QOS_SCAN_PERIOD_US);
    }
    ZEB_LOG(AGENT_LOG_DEBUG, "[QoS] 队列扫描线程退出");
    return nullptr;
}

int qos_reliable_init() {
    std::lock_guard lock(s_threads_lock);
    if (s_thread_count == k_max_scan_threads) {
        ZEB_LOG(AGENT_LOG_WARN, "[QoS] init called again, %d scan threads run already", s_thread_count);
    } else {
        g_scan_running.store(1, std::memory_order_relaxed);
        const int err = platform_thread_start(&g_scan_thread, "zeb-qos", scan_queue_thread, nullptr);
        if (err != 0) {
            ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 创建扫描线程失败，Linux错误码：%d（描述：%s）", err,
                    strerror(err));
            // Those of earlier calls go on; g_scan_thread still names the latest of them.
            if (s_thread_count == 0) g_scan_running.store(0, std::memory_order_relaxed);
            return -1;
        }
        s_threads[s_thread_count++] = g_scan_thread;
    }
    ZEB_LOG(AGENT_LOG_INFO, "[QoS] 可靠投递模块初始化成功");
    return 0;
}

void qos_reliable_destroy() {
    std::lock_guard lock(s_threads_lock);
    g_scan_running.store(0, std::memory_order_relaxed);
    ZEB_LOG(AGENT_LOG_DEBUG, "[QoS] 开始销毁可靠投递模块");
    while (s_thread_count > 0) pthread_join(s_threads[--s_thread_count], nullptr);
    g_scan_thread = pthread_t{};
    int freed = 0;
    {
        std::lock_guard queue_lock(g_queue_mutex);
        freed = qos_queue_clear();
    }
    ZEB_LOG(AGENT_LOG_INFO, "[QoS] 可靠投递模块已销毁，共清理%d条未完成报文", freed);
}

}  // namespace zeb

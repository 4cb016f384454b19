#pragma once

#include <atomic>
#include <cstdint>

// The broker's operating counters: totals since mqtt_stats_init, the same for the current period, and gauges
// that are sampled when a report or snapshot is made. Every thread counts, without a lock; a report made
// meanwhile may show one counter of an event without the other.

namespace zeb {

struct mqtt_stats_block {            // every field relaxed
    std::atomic<uint64_t> start_ms;  // monotonic
    std::atomic<uint32_t> online;
    std::atomic<uint32_t> max_online;
    std::atomic<uint64_t> pkt_rx;
    std::atomic<uint64_t> pkt_tx;
    std::atomic<uint64_t> drop_offline;
    std::atomic<uint64_t> drop_queue_full;
    std::atomic<uint64_t> drop_too_big;
    std::atomic<uint64_t> drop_invalid_param;
    std::atomic<uint64_t> drop_send_failed;
    std::atomic<uint64_t> qos0;
    std::atomic<uint64_t> qos1;
    std::atomic<uint64_t> qos2;
    std::atomic<uint64_t> offline_msg;
    std::atomic<uint32_t> retain_msg;
    std::atomic<uint32_t> subs;
    std::atomic<uint32_t> timeout;
    std::atomic<uint32_t> will_sent;
    std::atomic<uint32_t> parse_error;
    std::atomic<uint64_t> persist_write;
    std::atomic<uint64_t> persist_read;
    std::atomic<uint32_t> pool_cap;
    std::atomic<uint32_t> pool_used;
    std::atomic<float> pool_usage;
    std::atomic<uint64_t> period_pkt_rx;
    std::atomic<uint64_t> period_pkt_tx;
    std::atomic<uint64_t> period_drop_offline;
    std::atomic<uint64_t> period_drop_queue_full;
    std::atomic<uint64_t> period_drop_too_big;
    std::atomic<uint64_t> period_drop_invalid_param;
    std::atomic<uint64_t> period_drop_send_failed;
    std::atomic<uint32_t> period_timeout;
    std::atomic<uint32_t> period_will_sent;
    std::atomic<uint64_t> period_persist_write;
    std::atomic<uint64_t> period_persist_read;
};

extern mqtt_stats_block g_mqtt_stats;

void mqtt_stats_init();
void mqtt_stats_deinit();
void mqtt_stats_update();                     // samples the gauges
void mqtt_stats_print();                      // samples, then logs the report
void mqtt_stats_reset_period();               // totals and gauges stay
int mqtt_stats_to_json(char *buf, int size);  // 0, or -1 for a null buffer or size below 1024

void mqtt_stats_inc_rx_pkt();
void mqtt_stats_inc_tx_pkt();
void mqtt_stats_add_tx_pkts(uint32_t count);
void mqtt_stats_inc_qos(uint8_t qos);
void mqtt_stats_inc_drop_offline();
void mqtt_stats_inc_drop_queue_full();
void mqtt_stats_inc_drop_too_big();
void mqtt_stats_inc_drop_invalid_param();
void mqtt_stats_inc_drop_send_failed();
void mqtt_stats_inc_offline_msg();
void mqtt_stats_inc_will_sent();
void mqtt_stats_inc_timeout();
void mqtt_stats_inc_persist_write();
void mqtt_stats_inc_persist_read();
void mqtt_stats_inc_parse_error();

}  // namespace zeb

// Tools for routing one publication to many subscribers, and the delivery of retained messages.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "log/agent_log.h"
#include "log/platform_memory.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"
#include "sub/topic_filter.h"

namespace zeb {

int publication_encoder::encode(mqtt_client *subscriber, uint32_t qos, uint16_t msg_id) {
    record_.qos = qos;
    record_.packet_id = msg_id;
    const uint32_t level = subscriber->codec.protocol_version.load(std::memory_order_relaxed);
    packet_ = &packets_[level == 5 ? 1 : 0][qos];
    const bool reuse = packet_->len > 0 && (qos == 0 || msg_id != 0) && !agent_log_enabled(AGENT_LOG_DEBUG);
    if (!reuse) {
        // The subscriber's own thread may change its level meanwhile, and what is kept for the next
        // subscriber of a level has to be of that level.
        mqtt_codec_ctx ctx{};
        ctx.protocol_version.store(level, std::memory_order_relaxed);
        int len = static_cast<int>(packet_->bytes.size());
        const int err = mqtt_codec_encode_publish(&ctx, &record_, packet_->bytes.data(), &len);
        if (err != MQTT_CODEC_OK || len <= 0) return err != MQTT_CODEC_OK ? err : MQTT_CODEC_ERR_BUFFER;
        packet_->len = len;
        packet_->id_offset = qos == 0 ? 0 : mqtt_codec_publish_id_offset(packet_->bytes.data(), len);
    }
    subscriber->codec.last_packet_type.store(MQTT_PKT_PUBLISH, std::memory_order_relaxed);
    if (qos != 0) {
        const std::size_t at = static_cast<std::size_t>(packet_->id_offset);
        packet_->bytes[at] = static_cast<uint8_t>(msg_id >> 8);
        packet_->bytes[at + 1] = static_cast<uint8_t>(msg_id);
    }
    return MQTT_CODEC_OK;
}

// One routed publication's memory. It is kept for the next one; what a giant fan-out has grown stays, because
// the next publication of the kind will need it again.
struct routing_scratch::block {
    sub_route_list routes;
    uint8_t *selected = nullptr;
    int selected_capacity = 0;
    persist_session *session = nullptr;
    block *next = nullptr;
};

namespace {

// The I/O thread, the housekeeping thread and a few application threads route at the same time at most.
constexpr int k_kept_blocks = 4;

std::mutex s_stock_lock;
routing_scratch::block *s_stock = nullptr;
int s_stock_size = 0;

bool reserve_selection(routing_scratch::block *block, int count) {
    if (count > block->selected_capacity) {
        uint8_t *grown = static_cast<uint8_t *>(realloc(block->selected, static_cast<std::size_t>(count)));
        if (grown == nullptr) return false;
        block->selected = grown;
        block->selected_capacity = count;
    }
    if (count > 0) memset(block->selected, 0, static_cast<std::size_t>(count));
    return true;
}

void free_block(routing_scratch::block *block) {
    free(block->selected);
    if (block->session != nullptr) platform_zero_free(block->session, sizeof(persist_session));
    delete block;
}

}  // namespace

routing_scratch::routing_scratch() {
    {
        std::lock_guard lock(s_stock_lock);
        block_ = s_stock;
        if (block_ != nullptr) {
            s_stock = block_->next;
            --s_stock_size;
            return;
        }
    }
    block_ = new (std::nothrow) block;
}

routing_scratch::~routing_scratch() {
    if (block_ == nullptr) return;
    {
        std::lock_guard lock(s_stock_lock);
        if (s_stock_size < k_kept_blocks) {
            block_->next = s_stock;
            s_stock = block_;
            ++s_stock_size;
            return;
        }
    }
    free_block(block_);
}

int routing_scratch::match(const char *topic) {
    if (block_ == nullptr) return k_no_routes;
    block_->routes.all_filters = agent_log_enabled(AGENT_LOG_DEBUG);  // they are listed at that level
    const int count = sub_match_routes(topic, &block_->routes, k_fanout_max);
    if (count < 0) return k_no_routes;
    if (!reserve_selection(block_, count)) return k_no_selection;
    for (int i = 0; i < count; ++i) {
        if (route(i).shared) {
            packet_mark_shared(&route(0), count, block_->selected);
            break;
        }
    }
    return count;
}

const sub_route &routing_scratch::route(int i) const {
    return block_->routes.routes[i];
}

bool routing_scratch::skipped(int i) const {
    return route(i).shared && block_->selected[i] == 0;
}

persist_session *routing_scratch::session() {
    if (block_ == nullptr) return nullptr;
    if (block_->session == nullptr)
        block_->session = static_cast<persist_session *>(platform_zero_alloc(sizeof(persist_session)));
    return block_->session;
}

bool packet_has_stored_session(persist_session *scratch, const char *client_id) {
    if (scratch == nullptr) return false;
    client_reset_session(scratch);
    snprintf(scratch->client_id, sizeof scratch->client_id, "%s", client_id);
    bool found = false;
    return persist_load_found(scratch, &found) == 0 && found;
}

void send_retained_msg_to_client(mqtt_client *client, const char *topic_filter) {
    if (client == nullptr || topic_filter == nullptr) return;
    mqtt_publish_para record{};
    // Held for the whole walk, so that what the client gets is one state of the store.
    std::lock_guard lock(g_sub_mgr.lock);
    const int count =
        g_sub_mgr.retains == nullptr ? 0 : g_sub_mgr.retain_count.load(std::memory_order_relaxed);
    for (int i = 0; i < count; ++i) {
        const retain_msg &msg = g_sub_mgr.retains[i];
        if (msg.payload_len == 0 || topic_match_wildcard(topic_filter, msg.topic) == 0) continue;
        memcpy(record.topic, msg.topic, sizeof record.topic);
        memcpy(record.payload, msg.payload, msg.payload_len);
        record.payload_len = msg.payload_len;
        record.qos = msg.qos;  // as stored, not reduced to the subscription's: kept
        record.retain = 1;
        record.packet_id = packet_new_msg_id();
        uint8_t buf[k_publish_buf_bytes];
        int len = sizeof buf;
        if (mqtt_codec_encode_publish(&client->codec, &record, buf, &len) != MQTT_CODEC_OK) continue;
        if (client_send(client, buf, len) != 0) continue;
        ZEB_LOG(AGENT_LOG_INFO, "[保留消息] 下发成功: Client=%s, Topic=%s, Filter=%s", client->client_id,
                msg.topic, topic_filter);
    }
}

}  // namespace zeb

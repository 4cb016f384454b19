#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "client/client_mgr.h"
#include "qos/qos_reliable.h"
#include "tests/support/bytes.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"

namespace zeb_test {

// What waits in a client's ring, oldest first, as texts of hexadecimal bytes; takes it out.
inline std::vector<std::string> take_sent(zeb::mqtt_client *client) {
    std::vector<std::string> packets;
    std::lock_guard lock(client->send_lock);
    const zeb::client_send_slot *ring = client->send_ring;
    for (int i = client->send_head; i != client->send_tail; i = (i + 1) % zeb::CLIENT_SEND_RING_SIZE)
        packets.push_back(dump(ring[i].data, ring[i].len));
    client->send_head = 0;
    client->send_tail = 0;
    return packets;
}

// The same notation for an expected packet, see hex().
inline std::vector<std::string> packets(std::initializer_list<const char *> texts) {
    std::vector<std::string> out;
    for (const char *text : texts) out.push_back(dump(hex(text)));
    return out;
}

// A client manager without its threads, and a clock that the test moves. Passes run when the test asks.
class qos_test : public testing::Test {
  protected:
    void SetUp() override {
        log_ = std::make_unique<log_capture>(zeb::AGENT_LOG_FATAL);
        ASSERT_EQ(zeb::client_mgr_init(200), 0);
        zeb::mqtt_stop_send_thread();
        zeb::qos_reliable_destroy();
        a_ = make_client("alice");
        b_ = make_client("bob");
    }
    void TearDown() override {
        log_.reset();
        log_ = std::make_unique<log_capture>(zeb::AGENT_LOG_FATAL);
        zeb::client_mgr_deinit();
    }

    zeb::mqtt_client *make_client(const char *id, uint32_t level = 4) {
        zeb::mqtt_client *client = zeb::client_create(next_handle_++, "10.0.0.1", 4000, nullptr);
        zeb::client_set_cid(client, id);
        client->codec.protocol_version = level;
        client->state = zeb::LOGINED;
        return client;
    }

    // Starts over with the log: everything from here on, at this level and above.
    log_capture &listen(uint32_t level = zeb::AGENT_LOG_DEBUG) {
        log_.reset();
        log_ = std::make_unique<log_capture>(level);
        return *log_;
    }

    static int add(zeb::mqtt_client *client, uint16_t msg_id, int qos = 1, const char *topic = "t/1",
                   const std::string &payload = "hello") {
        zeb::mqtt_publish_para pub{};
        snprintf(pub.topic, sizeof pub.topic, "%s", topic);
        return zeb::qos_reliable_add_packet(client, msg_id, static_cast<uint8_t>(qos), &pub,
                                            reinterpret_cast<const uint8_t *>(payload.data()),
                                            static_cast<uint32_t>(payload.size()));
    }

    void pass_after(uint64_t ms) {
        clock_.advance_ms(ms);
        zeb::qos_reliable_scan_queue();
    }

    // "alice:1 bob:7 ", newest first.
    static std::string queue() {
        std::string out;
        std::lock_guard lock(zeb::g_queue_mutex);
        for (const zeb::qos_packet *p = zeb::g_pending_queue; p != nullptr; p = p->next)
            out += std::string(p->client->client_id) + ":" + std::to_string(p->msg_id) + " ";
        return out;
    }
    static int queue_length() {
        std::lock_guard lock(zeb::g_queue_mutex);
        int count = 0;
        for (const zeb::qos_packet *p = zeb::g_pending_queue; p != nullptr; p = p->next) ++count;
        return count;
    }

    fake_clock clock_;
    zeb::mqtt_client *a_ = nullptr;
    zeb::mqtt_client *b_ = nullptr;
    std::unique_ptr<log_capture> log_;

  private:
    zeb::netip_handle next_handle_ = 0;
};

}  // namespace zeb_test

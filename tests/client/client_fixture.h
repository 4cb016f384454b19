#pragma once

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <string>

#include "client/client_internal.h"
#include "log/platform_time.h"
#include "qos/qos_reliable.h"
#include "stats/mqtt_stats.h"
#include "sub/sub_mgr.h"
#include "tests/netip/netip_fixture.h"
#include "tests/support/bytes.h"
#include "tests/support/log_capture.h"

namespace zeb_test {

using zeb::CLOSED;
using zeb::CLOSING;
using zeb::CONNECTED;
using zeb::LOGINED;
using zeb::mqtt_client;

// Time stands still until it is told to move, while sleeping takes as long as asked for: the library's own
// threads keep their beat and do not spin.
class still_clock {
  public:
    still_clock() {
        mono() = 1000000;
        wall() = 1700000000000;
        beats() = 0;
        scans() = 0;
        zeb::platform_set_clock(&table());
    }
    ~still_clock() { zeb::platform_set_clock(nullptr); }
    still_clock(const still_clock &) = delete;
    still_clock &operator=(const still_clock &) = delete;

    void advance_ms(uint64_t ms) {
        mono() += ms;
        wall() += ms;
    }
    uint64_t mono_ms() const { return mono(); }
    uint64_t wall_sec() const { return wall() / 1000; }
    // How often a thread has slept for 10 ms: what the send thread does after each round.
    uint64_t send_beats() const { return beats(); }
    // How often one has slept for as long as the QoS scan thread does after each pass.
    uint64_t scan_passes() const { return scans(); }

  private:
    static constexpr uint64_t k_send_beat_us = 10000;
    static std::atomic<uint64_t> &mono() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static std::atomic<uint64_t> &wall() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static std::atomic<uint64_t> &beats() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static std::atomic<uint64_t> &scans() {
        static std::atomic<uint64_t> v;
        return v;
    }
    static void sleep_us(uint64_t us) {
        if (us == k_send_beat_us) ++beats();
        if (us == zeb::QOS_SCAN_PERIOD_US) ++scans();
        const timespec span{static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000 * 1000)};
        nanosleep(&span, nullptr);
    }
    static const zeb::platform_clock &table() {
        static const zeb::platform_clock clock{[] { return mono().load(); }, [] { return wall().load(); },
                                               sleep_us};
        return clock;
    }
};

// A client manager of its own, an empty subscription table and counters at zero for each test. The network is
// down unless the test brings it up: what is queued then stays in the rings.
class client_test : public testing::Test {
  protected:
    void SetUp() override {
        zeb::mqtt_stats_init();
        ASSERT_EQ(zeb::sub_init(), 0);
        start(200);
    }
    void TearDown() override {
        zeb::client_mgr_deinit();
        zeb::sub_deinit();
    }

    // Starts over with room for that many. Returns once the send thread and the QoS scan thread have had
    // their say in the log, so that a test that listens there afterwards hears nobody but itself.
    void start(int max_clients) {
        zeb::client_mgr_deinit();
        const uint64_t beats = clock.send_beats();
        const uint64_t passes = clock.scan_passes();
        ASSERT_EQ(zeb::client_mgr_init(max_clients), 0);
        ASSERT_TRUE(eventually([&] { return clock.send_beats() > beats && clock.scan_passes() > passes; }));
    }

    static mqtt_client *create(uint32_t handle, const char *id = nullptr) {
        mqtt_client *client = zeb::client_create(handle, "10.0.0.1", 4711, nullptr);
        if (client != nullptr && id != nullptr) {
            zeb::client_set_cid(client, id);
            client->state = LOGINED;
            client->clean_session = 1;
        }
        return client;
    }

    static void give_will(mqtt_client *client, const char *topic = "will/t", uint32_t delay_sec = 0) {
        const uint8_t payload[] = {0xFF, 'b', 'y', 'e'};
        zeb::client_set_will_msg(client, topic, payload, sizeof payload, 0, 0);
        zeb::client_set_will_enhance(client, delay_sec, 0, 0, "", "", nullptr, 0);
    }

    static int queued(mqtt_client *client) {
        std::lock_guard lock(client->send_lock);
        const int size = zeb::CLIENT_SEND_RING_SIZE;
        return (client->send_tail + size - client->send_head) % size;
    }

    // The packet at this place of the queue, 0 being the oldest.
    static bytes packet(mqtt_client *client, int place) {
        std::lock_guard lock(client->send_lock);
        const zeb::client_send_slot &slot =
            client->send_ring.load()[(client->send_head + place) % zeb::CLIENT_SEND_RING_SIZE];
        EXPECT_EQ(slot.ready, 1);
        return bytes(slot.data, slot.data + slot.len);
    }

    static int used_records() { return zeb::g_client_mgr.client_count.load(); }

    still_clock clock;
};

inline std::string numbered(const char *prefix, int n) {
    return prefix + std::to_string(n);
}

}  // namespace zeb_test

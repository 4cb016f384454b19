// Everything at once: registrations, acknowledgements, cleans, closes and the scan threads.
#include <thread>

#include "tests/qos/qos_fixture.h"

namespace {

using zeb::mqtt_client;

// Every look at this clock moves it by 20 ms, and sleeps are a hundredth of what was asked: messages become
// due all the time.
std::atomic<uint64_t> g_ticks{1000000};
const zeb::platform_clock k_fast{
    [] { return g_ticks.fetch_add(20, std::memory_order_relaxed); }, nullptr,
    [](uint64_t us) { std::this_thread::sleep_for(std::chrono::microseconds(us / 100)); }};

class qos_threads : public testing::Test {
  protected:
    void SetUp() override {
        zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL);
        zeb::platform_set_clock(&k_fast);
        ASSERT_EQ(zeb::client_mgr_init(100), 0);
        zeb::mqtt_stop_send_thread();
        ASSERT_EQ(zeb::qos_reliable_init(), 0);
    }
    void TearDown() override {
        zeb::client_mgr_deinit();
        zeb::platform_set_clock(nullptr);
    }

    static int add(mqtt_client *client, uint16_t msg_id, int qos, uint32_t word) {
        zeb::mqtt_publish_para pub{};
        strcpy(pub.topic, "t");
        uint8_t payload[4];
        memcpy(payload, &word, sizeof payload);
        return zeb::qos_reliable_add_packet(client, msg_id, static_cast<uint8_t>(qos), &pub, payload,
                                            sizeof payload);
    }

    // How many packets wait for the client, and whether each is a PUBLISH that carries `word`.
    static size_t count_own(mqtt_client *client, uint32_t word, bool *all_own) {
        std::lock_guard lock(client->send_lock);
        size_t count = 0;
        const zeb::client_send_slot *ring = client->send_ring;
        for (int i = client->send_head; i != client->send_tail; i = (i + 1) % zeb::CLIENT_SEND_RING_SIZE) {
            const zeb::client_send_slot &slot = ring[i];
            if (slot.len != 11 || memcmp(slot.data + 7, &word, sizeof word) != 0) *all_own = false;
            ++count;
        }
        return count;
    }
};

TEST_F(qos_threads, registrations_acknowledgements_and_cleans_of_many_clients_run_beside_the_scans) {
    constexpr int k_workers = 4;
    constexpr int k_rounds = 3000;
    mqtt_client *shared = zeb::client_create(50, "10.0.0.1", 1, nullptr);
    std::vector<mqtt_client *> own;
    for (uint32_t i = 0; i < k_workers; ++i) own.push_back(zeb::client_create(i, "10.0.0.1", 1, nullptr));
    std::vector<std::thread> workers;
    for (int w = 0; w < k_workers; ++w) {
        workers.emplace_back([&, w] {
            mqtt_client *mine = own[static_cast<size_t>(w)];
            for (int i = 0; i < k_rounds; ++i) {
                const auto id = static_cast<uint16_t>(i % 500 + 1);
                add(mine, id, i % 2 + 1, 1);
                add(shared, id, 1, 1);
                zeb::qos_reliable_set_packet_expiry(mine, id, 1);
                for (int type = 4 + i % 2; type <= 7; ++type) zeb::qos_reliable_handle_ack(mine, id, type);
                zeb::qos_reliable_handle_ack(shared, static_cast<uint16_t>((i * 7) % 500 + 1), 4);
                if (i % 100 == 0) zeb::qos_reliable_clean_client_packets(w % 2 == 0 ? shared : mine);
                if (i % 250 == 0) zeb::qos_reliable_scan_queue();
            }
        });
    }
    for (std::thread &worker : workers) worker.join();
    own.push_back(shared);
    for (mqtt_client *client : own) zeb::qos_reliable_drop_client(client);
    std::lock_guard lock(zeb::g_queue_mutex);
    EXPECT_EQ(zeb::g_pending_queue, nullptr);
    for (const mqtt_client *client : own) EXPECT_EQ(client->inflight, 0);
}

TEST_F(qos_threads, no_message_reaches_the_next_owner_of_a_record) {
    constexpr uint32_t k_workers = 4;
    constexpr uint32_t k_connections = 150;
    std::atomic<bool> only_own{true};
    std::vector<std::thread> workers;
    for (uint32_t w = 0; w < k_workers; ++w) {
        workers.emplace_back([&, w] {
            for (uint32_t i = 0; i < k_connections; ++i) {
                mqtt_client *client = zeb::client_create(w, "10.0.0.1", 1, nullptr);
                const uint32_t word = w << 16 | i;
                bool own = true;
                for (uint16_t id = 1; id <= 20; ++id) add(client, id, 1, word);
                size_t seen = 0;
                while (seen == 0) {
                    zeb::qos_reliable_scan_queue();
                    seen = count_own(client, word, &own);
                }
                if (!own) only_own = false;
                zeb::client_close(client);
            }
        });
    }
    for (std::thread &worker : workers) worker.join();
    EXPECT_TRUE(only_own);
    std::lock_guard lock(zeb::g_queue_mutex);
    EXPECT_EQ(zeb::g_pending_queue, nullptr);
}

TEST_F(qos_threads, a_destroy_in_the_middle_of_traffic_leaves_a_working_module) {
    std::atomic<bool> done{false};
    mqtt_client *client = zeb::client_create(1, "10.0.0.1", 1, nullptr);
    std::thread traffic([&] {
        for (uint16_t id = 1; !done; id = static_cast<uint16_t>(id % 900 + 1)) {
            add(client, id, 1, 1);
            zeb::qos_reliable_handle_ack(client, static_cast<uint16_t>(id / 2 + 1), 4);
        }
    });
    for (int i = 0; i < 20; ++i) {
        zeb::qos_reliable_destroy();
        ASSERT_EQ(zeb::qos_reliable_init(), 0);
        ASSERT_EQ(zeb::qos_reliable_init(), 0);
    }
    done = true;
    traffic.join();
    zeb::qos_reliable_destroy();
    EXPECT_EQ(client->inflight, 0);
    EXPECT_EQ(zeb::g_pending_queue, nullptr);
}

}  // namespace

// Many threads on the same few records: nobody may get what was meant for somebody else.
#include <cstdlib>
#include <random>
#include <thread>

#include "packet/packet_handler.h"
#include "sdk/zeb_sdk_mqtt_broker.h"
#include "tests/client/client_fixture.h"
#include "tests/client/mqtt_peer.h"
#include "tests/client/stepped_clock.h"

namespace {

using zeb_test::bytes;
using zeb_test::client_test;
using zeb_test::dump;
using zeb_test::eventually;
using zeb_test::mqtt_client;
using zeb_test::mqtt_peer;
using zeb_test::numbered;

class client_threads : public client_test {};

TEST_F(client_threads, a_record_closed_by_several_threads_is_closed_once) {
    for (uint32_t round = 0; round < 300; ++round) {
        mqtt_client *const client = create(round, "c");
        give_will(client);
        std::vector<std::thread> closers;
        for (int i = 0; i < 3; ++i)
            closers.emplace_back([] {
                const zeb::client_ref held = zeb::client_acquire_by_cid("c");
                if (held) zeb::client_close(held.get());
            });
        closers.emplace_back([] { zeb::client_will_delay_scan(); });
        for (std::thread &t : closers) t.join();
        zeb::client_will_delay_scan();
        ASSERT_EQ(zeb::g_mqtt_stats.will_sent, round + 1);
        ASSERT_EQ(used_records(), 0);
        ASSERT_EQ(zeb::g_will_delay_client_count, 0);
    }
}

TEST_F(client_threads, a_delayed_will_is_published_or_cancelled_never_both) {
    for (uint32_t round = 0; round < 200; ++round) {
        mqtt_client *const client = create(round, "c");
        give_will(client, "will/t", 1);
        zeb::client_close(client);
        clock.advance_ms(1000);
        mqtt_client *const back = create(round + 1000, "c");
        std::thread scan([] { zeb::client_will_delay_scan(); });
        std::thread other_scan([] { zeb::client_will_delay_scan(); });
        zeb::client_cancel_pending_wills("c", back);
        scan.join();
        other_scan.join();
        zeb::client_will_delay_scan();
        ASSERT_LE(zeb::g_mqtt_stats.will_sent, round + 1);
        ASSERT_EQ(used_records(), 1) << "the record of the new connection";
        ASSERT_EQ(zeb::g_will_delay_client_count, 0);
        ASSERT_EQ(zeb::client_find_by_cid("c"), back);
        back->disconnect_received = 1;
        zeb::client_close(back);
    }
}

// One pool record after another serves "a", "b", "c"...; senders look each of them up and send it its name.
TEST_F(client_threads, a_late_send_never_reaches_the_next_owner_of_a_record) {
    constexpr int k_names = 4;
    std::atomic<bool> done{false};
    std::vector<std::thread> senders;
    for (int s = 0; s < 3; ++s)
        senders.emplace_back([&done, s] {
            for (int i = s; !done; ++i) {
                const char name[] = {static_cast<char>('a' + i % k_names), '\0'};
                const zeb::client_ref held = zeb::client_acquire_by_cid(name);
                if (held) zeb::client_send(held.get(), reinterpret_cast<const uint8_t *>(name), 1);
            }
        });
    std::thread reader([&done] {
        char list[64];
        while (!done) {
            zeb::client_get_connected_count();
            zeb::client_fill_id_list(list, sizeof list);
            zeb::client_clean_timeout(1000000000);
        }
    });
    int received = 0;
    for (uint32_t round = 0; round < 1500; ++round) {
        const char name[] = {static_cast<char>('a' + round % k_names), '\0'};
        mqtt_client *const client = create(round % 50, name);
        ASSERT_NE(client, nullptr);
        if (round % 3 == 0) std::this_thread::yield();
        const zeb::client_ref held(client);
        zeb::client_close(client);
        std::lock_guard lock(client->send_lock);
        const zeb::client_send_slot *ring = client->send_ring.load();
        for (int i = client->send_head; i != client->send_tail; ++i, ++received)
            ASSERT_EQ(ring[i].data[0], name[0]) << "round " << round;
    }
    done = true;
    for (std::thread &t : senders) t.join();
    reader.join();
    EXPECT_GT(received, 0);
    EXPECT_TRUE(eventually([] { return used_records() == 0; }));
}

// The storm: clients that come and go in every way, each with a topic of its own, while the application
// publishes, lists and kicks and time leaps ahead.
int storm_seconds() {
    const char *text = getenv("ZEB_STORM_SECONDS");
    return text == nullptr ? 8 : atoi(text);
}

constexpr int k_peers = 12;

std::string peer_name(int peer, int life) {
    return "peer-" + std::to_string(peer) + "-" + std::to_string(life);
}

class storm {
  public:
    std::atomic<bool> done{false};
    std::atomic<int> received{0};
    std::atomic<int> kicked{0};
    std::atomic<int> lives[k_peers]{};

    // What went wrong first.
    std::string complaint() {
        const std::lock_guard lock(lock_);
        return complaint_;
    }
    void complain(const std::string &text) {
        const std::lock_guard lock(lock_);
        if (complaint_.empty()) complaint_ = text;
        done = true;
    }

    void run_peer(int peer) {
        std::mt19937 random(static_cast<unsigned>(peer));
        while (!done) {
            live(peer, &random);
            ++lives[peer];
        }
    }

    void run_publisher(mqtt_broker_instance *b, unsigned seed) {
        std::mt19937 random(seed);
        while (!done) {
            const std::string name = some_name(&random);
            const std::string topic = "inbox/" + name;
            const auto *payload = reinterpret_cast<const uint8_t *>(name.data());
            const int len = static_cast<int>(name.size());
            if (random() % 2 == 0)
                zeb::packet_handler_broker_publish(topic.c_str(), payload, len, random() % 3, 0, 0);
            else
                zeb_sdk_mqtt_broker_publish(b, topic.c_str(), payload, len, random() % 3, 0, 0);
            if (random() % 64 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void run_application(mqtt_broker_instance *b) {
        std::mt19937 random(77);
        while (!done) {
            char list[2048];
            mqtt_broker_client_info info;
            mqtt_broker_stats stats;
            zeb_sdk_mqtt_broker_get_client_id_list(b, list, sizeof list);
            zeb_sdk_mqtt_broker_get_stats(b, &stats);
            const std::string name = some_name(&random);
            if (zeb_sdk_mqtt_broker_get_client_info(b, name.c_str(), &info) == 0 && name != info.client_id)
                complain("asked for " + name + ", got " + info.client_id);
            if (random() % 8 == 0 && zeb_sdk_mqtt_broker_kick_client(b, name.c_str()) == 0) ++kicked;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

  private:
    std::string some_name(std::mt19937 *random) const {
        const int peer = static_cast<int>((*random)() % k_peers);
        return peer_name(peer, lives[peer]);
    }

    // True while the connection lasts.
    bool take(const std::string &name, mqtt_peer *peer) {
        const bytes packet = peer->read();
        if (packet.size() < 2) return false;
        const int type = packet[0] >> 4;
        if (type == 0xE) return false;  // kicked
        if (type != 0x3) return true;
        const std::string topic = "inbox/" + name;
        const uint8_t qos = packet[0] >> 1 & 3;
        bytes expected{packet[0], packet[1]};
        zeb_test::put_text(&expected, topic);
        const size_t id_at = expected.size();
        if (qos != 0 && packet.size() > id_at + 1) {
            expected.push_back(packet[id_at]);
            expected.push_back(packet[id_at + 1]);
            peer->send(bytes{0x40, 2, packet[id_at], packet[id_at + 1]});
        }
        expected.insert(expected.end(), name.begin(), name.end());
        if (packet != expected) complain(name + " expected " + dump(expected) + ", got " + dump(packet));
        ++received;
        return true;
    }

    void live(int number, std::mt19937 *random) {
        const std::string name = peer_name(number, lives[number]);
        zeb_test::connect_options options;
        if ((*random)() % 3 == 0) options.will_topic = "inbox/nobody";
        mqtt_peer peer;
        if (!peer.send(zeb_test::connect_packet(name, options)) || peer.read().empty()) return;
        if (!peer.send(zeb_test::subscribe_packet(7, "inbox/" + name, (*random)() % 2))) return;
        const int packets = static_cast<int>((*random)() % 30);
        for (int i = 0; i < packets && !done; ++i) {
            if (peer.tcp().readable(std::chrono::milliseconds(20)) && !take(name, &peer)) return;
            const std::string other = some_name(random);
            bytes payload(other.begin(), other.end());
            if (!peer.send(zeb_test::publish_packet("inbox/" + other, payload, 0))) return;
        }
        switch ((*random)() % 3) {
            case 0:
                peer.send("E0 00");
                break;
            case 1:
                peer.reset();
                break;
            default:
                peer.close();
                break;
        }
    }

    std::mutex lock_;
    std::string complaint_;
};

TEST(client_storm, nobody_gets_what_was_meant_for_another) {
    zeb_test::stepped_clock clock;
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    ASSERT_EQ(zeb_sdk_mqtt_broker_init(b), 0);
    zeb_sdk_mqtt_broker_set_log_level(b, zeb::AGENT_LOG_FATAL);
    ASSERT_EQ(zeb_sdk_mqtt_broker_start(b, 1883, 300), 0);
    storm s;
    std::vector<std::thread> threads;
    for (int i = 0; i < k_peers; ++i) threads.emplace_back([&s, i] { s.run_peer(i); });
    for (unsigned i = 0; i < 2; ++i) threads.emplace_back([&s, b, i] { s.run_publisher(b, i); });
    threads.emplace_back([&s, b] { s.run_application(b); });

    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(storm_seconds());
    while (!s.done && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        clock.advance_ms(35000);
    }
    s.done = true;
    for (std::thread &t : threads) t.join();
    EXPECT_EQ(s.complaint(), "");
    EXPECT_GT(s.received, 0);
    EXPECT_GT(s.kicked, 0);
    EXPECT_TRUE(eventually([] { return zeb::g_client_mgr.client_count == 0; }));
    EXPECT_EQ(zeb::g_will_delay_client_count, 0);
    EXPECT_EQ(zeb::g_sub_mgr.sub_count, 0) << "clean sessions leave no subscription behind";
    zeb_sdk_mqtt_broker_stop(b);
    zeb_sdk_mqtt_broker_deinit(b);
    zeb_sdk_mqtt_broker_destroy(b);
}

}  // namespace

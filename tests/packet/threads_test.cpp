// Packets of many connections at the same time, with the application in between.
#include <atomic>
#include <functional>
#include <thread>

#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

constexpr int k_rounds = 1500;

class packet_threads : public packet_fixture {
  protected:
    packet_threads() { broker = {}; }  // the notes of the callbacks are for one thread only

    void start(std::function<void()> body) { threads_.emplace_back(std::move(body)); }
    void finish() {
        for (std::thread &t : threads_) t.join();
        threads_.clear();
    }
    mqtt_client *fresh(uint32_t handle) { return zeb::client_create(handle, "10.0.0.8", 1, &broker); }

  private:
    std::vector<std::thread> threads_;
};

// The packet without its identifier.
std::string shape(const std::string &packet) {
    std::string out = packet;
    if (out.compare(0, 2, "32") == 0) out.replace(15, 5, "?? ??");
    return out;
}

TEST_F(packet_threads, subscribers_that_switch_their_level_never_change_the_copies_of_others) {
    mqtt_client *publishers[] = {join("p1"), join("p2", 5)};
    mqtt_client *switching = join("switching");
    mqtt_client *four = join("four");
    mqtt_client *five = join("five", 5);
    for (mqtt_client *s : {switching, four, five}) subscribe(s, "t", 1);
    std::atomic<int> wrong{0};
    std::atomic<int> received{0};
    std::atomic<bool> done{false};
    for (mqtt_client *p : publishers)
        start([p] {
            const bytes packet = publish_packet("t", bytes(5, 0xFF), 1, 7);
            for (int i = 0; i < k_rounds; ++i) {
                give(p, packet);
                (void)sent(p);
            }
        });
    start([] {
        const bytes payload(5, 0xFF);
        for (int i = 0; i < k_rounds; ++i)
            zeb::packet_handler_broker_publish("t", payload.data(), 5, 1, 0, 0);
    });
    std::thread switcher([&] {
        for (int i = 0; !done.load(); ++i) {
            give(switching, i % 2 == 0 ? "40 04 00 01 00 00" : "40 02 00 01");
            (void)sent(switching);
        }
    });
    std::thread reader([&] {
        const auto look = [&](mqtt_client *client, const std::string &expected) {
            for (const std::string &packet : sent(client)) {
                ++received;
                if (shape(packet) != expected) ++wrong;
            }
        };
        bool last = false;
        while (!last) {
            last = done.load();
            look(four, "32 0A 00 01 74 ?? ?? FF FF FF FF FF");
            look(five, "32 0B 00 01 74 ?? ?? 00 FF FF FF FF FF");
        }
    });
    finish();
    done.store(true);
    switcher.join();
    reader.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_GT(received.load(), 0);
}

TEST_F(packet_threads, clients_come_and_go_while_others_publish_to_them) {
    mqtt_client *publisher = join("publisher");
    (void)join("retainer");
    start([publisher] {
        for (int i = 0; i < k_rounds; ++i) {
            give(publisher, publish_packet("t/x", "payload", i % 3, 7, i % 50 == 0 ? 1 : 0));
            (void)sent(publisher);
        }
    });
    start([] {
        const uint8_t byte = 'x';
        for (int i = 0; i < k_rounds; ++i)
            zeb::packet_handler_broker_publish("t/x", &byte, 1, 2, i % 100 == 0, 0);
    });
    for (uint32_t n = 0; n < 3; ++n)
        start([this, n] {
            connect_options o;
            o.will = true;
            o.will_topic = "t/will";
            // Two of the threads fight for one identifier.
            const std::string id = "storm" + std::to_string(n / 2);
            for (int i = 0; i < k_rounds / 3; ++i) {
                mqtt_client *client = fresh(100 + n);
                ASSERT_NE(nullptr, client);
                const zeb::client_ref hold(client);
                give(client, connect_packet(id, o));
                give(client, subscribe_packet(1, {{"t/#", 2}, {"$share/g/t/+", 1}}));
                if (i % 3 == 0) give(client, unsubscribe_packet(2, {"t/#"}));
                if (i % 2 == 0)
                    give(client, "E0 00");
                else
                    zeb::client_close(client);
                zeb::client_will_delay_scan();
            }
        });
    start([] {
        for (int i = 0; i < k_rounds / 3; ++i) {
            if (const zeb::client_ref held = zeb::client_acquire_by_cid("storm0")) {
                zeb::packet_handler_send_disconnect(held.get(), 0x98);
                zeb::client_close(held.get());
            }
            std::this_thread::yield();
        }
    });
    finish();
    zeb::client_will_delay_scan();
    EXPECT_EQ(2, zeb::client_get_connected_count());
    EXPECT_EQ(0, live_subscriptions("storm0"));
    EXPECT_EQ(0, live_subscriptions("storm1"));
}

}  // namespace

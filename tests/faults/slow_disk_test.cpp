// A disk that takes 200 ms to write anything through. Clients' files are written by the thread that serves
// all connections, so that everybody waits while one is written: bounded by the writes that are due, and over
// with them. What only passes through memory never touches the disk.
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <set>

#include "tests/client/mqtt_peer.h"
#include "tests/faults/embedded.h"

namespace {

constexpr auto k_write_through = std::chrono::milliseconds(200);

std::atomic<bool> g_slow{false};
std::atomic<int> g_writes{0};

void write_through() {
    ++g_writes;
    if (g_slow) std::this_thread::sleep_for(k_write_through);
}

}  // namespace

extern "C" {

int __real_fsync(int);
int __real_fdatasync(int);

int __wrap_fsync(int fd) {
    write_through();
    return __real_fsync(fd);
}
int __wrap_fdatasync(int fd) {
    write_through();
    return __real_fdatasync(fd);
}

}  // extern "C"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using zeb_test::connect_options;
using zeb_test::embedded;
using zeb_test::mqtt_peer;
using zeb_test::publish_packet;

class faults_slow_disk : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::remove_all("./data");
        ASSERT_EQ(broker.open("./data"), 0);
        g_slow = true;
        g_writes = 0;
    }
    void TearDown() override { g_slow = false; }

    static connect_options persistent() {
        connect_options options;
        options.clean = false;
        return options;
    }
    // A client that is away, subscribed to "t".
    static void leave_a_session_behind() {
        mqtt_peer keeper("keeper", persistent());
        keeper.subscribe("t", 1);
        keeper.send({0xE0, 0});
        ASSERT_TRUE(keeper.at_end());
    }
    static milliseconds time_of(const std::function<void()> &act) {
        const auto begin = steady_clock::now();
        act();
        return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
    }
    // What so many writes may take, on a machine that is busy with other things.
    static milliseconds allowance(int writes) { return k_write_through * writes + milliseconds(2000); }

    embedded broker;
};

TEST_F(faults_slow_disk, messages_between_clients_online_do_not_touch_it) {
    mqtt_peer listener("listener");
    listener.subscribe("t", 1);
    mqtt_peer speaker("speaker");
    const int before = g_writes;
    for (uint16_t id = 1; id <= 100; ++id) {
        speaker.send(publish_packet("t", {0xFF}, 1, id));
        const zeb_test::bytes got = listener.read();
        ASSERT_EQ(got.size(), 8u);
        listener.send({0x40, 2, got[5], got[6]});
        ASSERT_EQ(speaker.read(),
                  (zeb_test::bytes{0x40, 2, static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)}));
    }
    EXPECT_EQ(g_writes, before);
}

TEST_F(faults_slow_disk, retained_messages_are_not_written_through) {
    mqtt_peer speaker("speaker");
    const int before = g_writes;
    for (uint8_t id = 1; id <= 20; ++id) {
        zeb_test::bytes retained = publish_packet("r/" + std::to_string(id), {0xFF}, 1, id);
        retained[0] |= 1;
        speaker.send(retained);
        EXPECT_EQ(speaker.read(), (zeb_test::bytes{0x40, 2, 0, id}));
    }
    EXPECT_EQ(g_writes, before);
}

// The thread that writes is the application's own then.
TEST_F(faults_slow_disk, what_the_application_stores_delays_no_client_online) {
    leave_a_session_behind();
    mqtt_peer client("client");
    ASSERT_TRUE(client.is_served());
    const int before = g_writes;
    std::atomic<bool> stored{false};
    std::thread application([&] {
        const uint8_t payload = 0xFF;
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(zeb_sdk_mqtt_broker_publish(broker.get(), "t", &payload, 1, 1, 0, 0), 0);
        stored = true;
    });
    int pings = 0;
    for (; !stored; ++pings) EXPECT_LT(time_of([&] { EXPECT_TRUE(client.is_served()); }), allowance(0));
    application.join();
    EXPECT_GE(g_writes - before, 5);
    EXPECT_GE(pings, 3);
}

TEST_F(faults_slow_disk, a_stored_subscription_delays_others_by_its_own_writes) {
    mqtt_peer other("other");
    ASSERT_TRUE(other.is_served());
    mqtt_peer keeper("keeper", persistent());
    const int before = g_writes;
    keeper.send(zeb_test::subscribe_packet(7, "t", 1));
    const milliseconds waited = time_of([&] { EXPECT_TRUE(other.is_served()); });
    EXPECT_EQ(keeper.read(), (zeb_test::bytes{0x90, 3, 0, 7, 1}));
    const int writes = g_writes - before;
    EXPECT_TRUE(writes >= 1 && writes <= 4) << writes;
    EXPECT_LT(waited, allowance(writes));
}

// The worst there is: everybody waits for what one client's messages cost.
TEST_F(faults_slow_disk, messages_for_a_client_that_is_away_delay_others_by_their_writes_and_are_all_kept) {
    constexpr uint16_t k_messages = 8;
    leave_a_session_behind();
    mqtt_peer other("other");
    mqtt_peer speaker("speaker");
    const int before = g_writes;
    for (uint16_t id = 1; id <= k_messages; ++id)
        speaker.send(publish_packet("t", {0xFF, static_cast<uint8_t>(id)}, 1, id));
    const milliseconds waited = time_of([&] { EXPECT_TRUE(other.is_served()); });
    for (uint8_t id = 1; id <= k_messages; ++id) EXPECT_EQ(speaker.read(), (zeb_test::bytes{0x40, 2, 0, id}));
    const int writes = g_writes - before;
    EXPECT_TRUE(writes >= k_messages && writes <= 4 * k_messages) << writes;
    EXPECT_LT(waited, allowance(writes));
    EXPECT_LT(time_of([&] { EXPECT_TRUE(other.is_served()); }), allowance(0)) << "it is over with them";
    g_slow = false;
    mqtt_peer back;
    back.send(zeb_test::connect_packet("keeper", persistent()));
    EXPECT_EQ(back.read(), (zeb_test::bytes{0x20, 2, 1, 0}));
    std::set<int> kept;
    for (int i = 0; i < k_messages; ++i) {
        const zeb_test::bytes got = back.read();
        ASSERT_EQ(got.size(), 9u);
        kept.insert(got[8]);
    }
    EXPECT_EQ(kept.size(), k_messages);
}

}  // namespace

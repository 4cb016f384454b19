// What a broker and its clients cost in memory and in time.
#include <sys/resource.h>

#include <cstdio>
#include <memory>

#include "client/client_mgr.h"
#include "packet/packet_handler.h"
#include "stats/mqtt_stats.h"
#include "tests/client/mqtt_peer.h"

namespace {

using zeb_test::eventually;
using zeb_test::mqtt_peer;

constexpr long k_mib = 1024;  // in KiB

long resident_kib() {
    FILE *status = fopen("/proc/self/status", "r");
    if (status == nullptr) return -1;
    char line[256];
    long kib = -1;
    while (fgets(line, sizeof line, status) != nullptr)
        if (sscanf(line, "VmRSS: %ld", &kib) == 1) break;
    fclose(status);
    return kib;
}

// Room for all clients, the network up, nobody connected.
class full_broker {
  public:
    full_broker() {
        EXPECT_EQ(zeb::sub_init(), 0);
        EXPECT_EQ(zeb::client_mgr_init(zeb::CLIENT_MAX), 0);
        EXPECT_EQ(zeb::netip_init(zeb::mqtt_netip_event_cb, nullptr, 1), zeb::NETIP_OK);
    }
    ~full_broker() {
        zeb::netip_deinit();
        zeb::client_mgr_deinit();
        zeb::sub_deinit();
    }
    full_broker(const full_broker &) = delete;
    full_broker &operator=(const full_broker &) = delete;
};

TEST(client_memory, an_idle_broker_for_11000_clients_stays_under_30_mib) {
    for (int life = 0; life < 3; ++life) {  // a restart must not cost more than the first start
        const long before = resident_kib();
        const full_broker broker;
        RecordProperty("kib", static_cast<int>(resident_kib() - before));
        EXPECT_LT(resident_kib() - before, 30 * k_mib) << "life " << life;
    }
}

TEST(client_memory, a_quiet_client_costs_16_kib_at_most) {
    constexpr int k_clients = 500;
    std::vector<std::unique_ptr<mqtt_peer>> peers;
    peers.reserve(k_clients + 1);
    const full_broker broker;
    peers.push_back(std::make_unique<mqtt_peer>("warm-up"));
    const long before = resident_kib();
    for (int i = 0; i < k_clients; ++i)
        peers.push_back(std::make_unique<mqtt_peer>("client-" + std::to_string(i)));
    ASSERT_EQ(zeb::client_get_connected_count(), k_clients + 1);
    const long each = (resident_kib() - before) / k_clients;
    RecordProperty("kib", static_cast<int>(each));
    EXPECT_LE(each, 16);
}

TEST(client_memory, clients_that_come_and_go_leave_nothing_behind) {
    const full_broker broker;
    const auto visit = [] {
        {
            std::lock_guard guard(zeb::g_netip_lock);
            zeb::g_last_handle = 0;  // the same handles each time: what they cost is known by then
        }
        std::vector<std::unique_ptr<mqtt_peer>> peers;
        for (int i = 0; i < 100; ++i) {
            peers.push_back(std::make_unique<mqtt_peer>());
            peers.back()->send(zeb_test::connect_packet("visitor-" + std::to_string(i)));
        }
        for (const auto &peer : peers) EXPECT_EQ(zeb_test::dump(peer->read()), "20 02 00 00");
        peers.clear();
        EXPECT_TRUE(eventually([] { return zeb::g_client_mgr.client_count == 0; }));
    };
    for (int round = 0; round < 3; ++round) visit();
    const long before = resident_kib();
    for (int round = 0; round < 30; ++round) visit();
    EXPECT_LT(resident_kib() - before, k_mib) << "after 3000 clients";
}

}  // namespace

// How long the I/O thread is busy with one publication, which nobody else's packets pass meanwhile, and what
// the send thread needs for one client's full ring. The socket takes everything at once.
#include <sys/socket.h>

#include <string>

#include "bench/bench_support.h"
#include "netip/netip.h"
#include "packet/packet_handler.h"
#include "qos/qos_reliable.h"
#include "sub/sub_mgr.h"
#include "tests/packet/packet_bytes.h"

namespace {

int64_t s_bytes_sent = 0;

}  // namespace

// The linker puts them in the place of the system calls.
extern "C" ssize_t __wrap_send(int, const void *, size_t len, int) {
    s_bytes_sent += static_cast<int64_t>(len);
    return static_cast<ssize_t>(len);
}

extern "C" ssize_t __wrap_sendmsg(int, const msghdr *message, int) {
    ssize_t taken = 0;
    for (size_t i = 0; i < message->msg_iovlen; ++i)
        taken += static_cast<ssize_t>(message->msg_iov[i].iov_len);
    s_bytes_sent += taken;
    return taken;
}

namespace {

using zeb_bench::client_world;
using zeb_bench::require;

constexpr char k_topic[] = "bench/building/7/temperature";
constexpr char k_payload_byte = '~';  // not the length of a property block

// All but the last client, which publishes.
bool subscribe_all(const client_world &world, uint32_t qos) {
    if (zeb::sub_init() != 0) return false;
    for (int i = 0; i + 1 < world.count(); ++i)
        if (zeb::sub_add(world.client(i)->client_id, k_topic, qos, 1) != 0) return false;
    return true;
}

// The same identifiers each time: one of 65536 is 0, and such a copy is not sent.
void restart_msg_ids() {
    std::lock_guard lock(zeb::msgid_mutex);
    zeb::msgid_seed = 1;
}

// The copies of one publication, as if all had been sent and acknowledged.
int64_t settle(const client_world &world, int qos) {
    int64_t copies = 0;
    for (int i = 0; i + 1 < world.count(); ++i) {
        zeb::mqtt_client *client = world.client(i);
        const bool in_flight = client->inflight == qos;  // one of QoS 1, or none
        const int queued = zeb_bench::take_queued(client);
        copies += in_flight ? queued : 0;
        if (qos != 0) zeb::qos_reliable_drop_client(client);
    }
    return copies;
}

void route_publication(benchmark::State &state, int qos, bool exact) {
    const int subscribers = static_cast<int>(state.range(0));
    client_world *world = zeb_bench::world_of(state, subscribers + 1);
    if (world == nullptr || !require(state, subscribe_all(*world, 1), "not subscribed")) return;
    const zeb_bench::exact_lookup lookup(exact);
    zeb::mqtt_client *publisher = world->client(subscribers);
    const zeb_test::bytes packet =
        zeb_test::publish_packet(k_topic, zeb_test::bytes(64, k_payload_byte), qos, 7);
    const auto publish = [&] {
        zeb::packet_dispatch(publisher, packet.data(), static_cast<int32_t>(packet.size()));
    };
    restart_msg_ids();
    publish();  // the first packet to a client makes its ring
    (void)settle(*world, qos);
    (void)zeb_bench::take_queued(publisher);
    int64_t delivered = 0;
    int64_t answers = 0;
    for (auto _ : state) {
        restart_msg_ids();
        zeb_bench::timed(state, publish);
        delivered += settle(*world, qos);
        answers += zeb_bench::take_queued(publisher);
    }
    require(state, delivered == state.iterations() * subscribers, "wrong number of copies");
    require(state, answers == state.iterations() * qos, "wrong number of answers");
    state.SetItemsProcessed(delivered);
}
BENCHMARK_CAPTURE(route_publication, qos0, 0, false)->Arg(1)->Arg(100)->Arg(1000)->UseManualTime();
BENCHMARK_CAPTURE(route_publication, qos1, 1, false)->Arg(1)->Arg(100)->Arg(1000)->UseManualTime();
BENCHMARK_CAPTURE(route_publication, qos0_exact_lookup, 0, true)
    ->Arg(1)
    ->Arg(100)
    ->Arg(1000)
    ->UseManualTime();

void route_to_nobody(benchmark::State &state) {
    client_world *world = zeb_bench::world_of(state, 1);
    if (world == nullptr || !require(state, zeb::sub_init() == 0, "no table")) return;
    const zeb_test::bytes packet = zeb_test::publish_packet(k_topic, zeb_test::bytes(64, k_payload_byte), 0);
    for (auto _ : state)
        zeb::packet_dispatch(world->client(0), packet.data(), static_cast<int32_t>(packet.size()));
    require(state, zeb_bench::take_queued(world->client(0)) == 0, "somebody got it");
}
BENCHMARK(route_to_nobody);

// Gives the clients slots of the network layer whose sockets are never touched.
class open_slots {
  public:
    explicit open_slots(const client_world &world) : count_(world.count()) {
        for (int i = 0; i < count_; ++i) {
            zeb::netip_conn &conn = zeb::g_netip_clients[i];
            conn.type = zeb::NETIP_TYPE_TCP;
            conn.fd = -1;
            conn.in_use.store(1);
        }
    }
    ~open_slots() {
        for (int i = 0; i < count_; ++i) zeb::g_netip_clients[i].in_use.store(0);
    }
    open_slots(const open_slots &) = delete;
    open_slots &operator=(const open_slots &) = delete;

  private:
    int count_;
};

int64_t give(zeb::mqtt_client *client, const zeb_test::bytes &packet, int count) {
    int64_t queued = 0;
    for (int i = 0; i < count; ++i)
        queued += zeb::client_send(client, packet.data(), static_cast<int>(packet.size())) == 0 ? 1 : 0;
    return queued;
}

void flush_full_ring(benchmark::State &state) {
    client_world *world = zeb_bench::world_of(state, 1);
    if (world == nullptr) return;
    const open_slots slots(*world);
    const zeb_test::bytes packet(static_cast<size_t>(state.range(0)), 0x30);
    s_bytes_sent = 0;
    int64_t queued = 0;
    for (auto _ : state) {
        queued += give(world->client(0), packet, zeb_bench::k_ring_room);
        zeb_bench::timed(state, [&] { zeb::client_send_flush(world->client(0)); });
    }
    require(state, queued == state.iterations() * zeb_bench::k_ring_room, "ring not filled");
    require(state, s_bytes_sent == queued * state.range(0), "not sent");
    state.SetItemsProcessed(queued);
}
BENCHMARK(flush_full_ring)->Arg(64)->Arg(1900)->UseManualTime();

// The send thread's beat over clients of which some have a packet.
void beat(benchmark::State &state) {
    client_world *world = zeb_bench::world_of(state, static_cast<int>(state.range(0)));
    if (world == nullptr) return;
    const open_slots slots(*world);
    const int receivers = static_cast<int>(state.range(1));
    const zeb_test::bytes packet(64, 0x30);
    s_bytes_sent = 0;
    int64_t queued = 0;
    for (auto _ : state) {
        for (int i = 0; i < receivers; ++i) queued += give(world->client(i), packet, 1);
        zeb_bench::timed(state, [] { zeb::client_flush_queued(); });
    }
    require(state, queued == state.iterations() * receivers, "not queued");
    require(state, s_bytes_sent == queued * static_cast<int64_t>(packet.size()), "not sent");
    state.SetItemsProcessed(queued);
}
BENCHMARK(beat)->Args({1000, 0})->Args({1000, 1})->Args({1000, 100})->Args({1000, 1000})->UseManualTime();

}  // namespace

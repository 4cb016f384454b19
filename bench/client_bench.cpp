// Whether finding, making and ending a client and giving it a packet stay cheap in a crowd, and how long a
// broker's start takes with the largest table.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_support.h"

namespace {

using zeb_bench::client_world;
using zeb_bench::k_ring_room;
using zeb_bench::require;

// In no order that a cache could foresee.
std::vector<int> shuffled(int count) {
    std::vector<int> order(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) order[static_cast<size_t>(i)] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    return order;
}

void find_by_handle(benchmark::State &state) {
    client_world *world = zeb_bench::world_of(state, static_cast<int>(state.range(0)));
    if (world == nullptr) return;
    const std::vector<int> order = shuffled(world->count());
    size_t next = 0;
    int64_t found = 0;
    for (auto _ : state) {
        found += zeb::client_find_by_handle(static_cast<uint32_t>(order[next])) != nullptr ? 1 : 0;
        if (++next == order.size()) next = 0;
    }
    require(state, found == state.iterations(), "not found");
}
BENCHMARK(find_by_handle)->Arg(10)->Arg(1000)->Arg(10000);

// In the direct-mapped table only the newer of two identifiers in one slot is found; the others are left out.
std::vector<std::string> findable_names(const client_world &world) {
    std::vector<std::string> names;
    for (const int i : shuffled(world.count()))
        if (zeb::client_find_by_cid(world.client(i)->client_id) != nullptr)
            names.emplace_back(world.client(i)->client_id);
    return names;
}

void find_by_identifier(benchmark::State &state, bool exact) {
    client_world *world = zeb_bench::world_of(state, static_cast<int>(state.range(0)));
    if (world == nullptr) return;
    const zeb_bench::exact_lookup lookup(exact);
    const std::vector<std::string> names = findable_names(*world);
    const bool complete = names.size() == world->clients().size();
    if (!require(state, !names.empty() && (complete || !exact), "a client is not found")) return;
    size_t next = 0;
    int64_t found = 0;
    for (auto _ : state) {
        found += zeb::client_find_by_cid(names[next].c_str()) != nullptr ? 1 : 0;
        if (++next == names.size()) next = 0;
    }
    require(state, found == state.iterations(), "not found");
    state.counters["findable"] = static_cast<double>(names.size());
}
BENCHMARK_CAPTURE(find_by_identifier, direct_mapped, false)->Arg(10)->Arg(1000)->Arg(10000);
BENCHMARK_CAPTURE(find_by_identifier, exact, true)->Arg(10)->Arg(1000)->Arg(10000);

constexpr uint8_t k_packet[64] = {0x30, 62};

int64_t give(zeb::mqtt_client *client, int packets) {
    int64_t queued = 0;
    for (int i = 0; i < packets; ++i)
        queued += zeb::client_send(client, k_packet, sizeof k_packet) == 0 ? 1 : 0;
    return queued;
}

// With a packet the client gets a ring as well, as every client does that is answered.
void create_and_close(benchmark::State &state, int packets) {
    client_world *world = zeb_bench::world_of(state, static_cast<int>(state.range(0)));
    if (world == nullptr) return;
    const uint32_t handle = static_cast<uint32_t>(world->count());
    int64_t created = 0;
    int64_t queued = 0;
    for (auto _ : state) {
        zeb::mqtt_client *client = zeb::client_create(handle, "127.0.0.1", 1, nullptr);
        if (client == nullptr) continue;
        zeb::client_set_cid(client, "newcomer");
        client->clean_session.store(1);
        queued += give(client, packets);
        zeb::client_close(client);
        ++created;
    }
    require(state, created == state.iterations() && queued == created * packets, "not created");
    require(state, zeb::g_client_mgr.client_count.load() == world->count(), "not closed");
}
BENCHMARK_CAPTURE(create_and_close, silent, 0)->Arg(10)->Arg(1000)->Arg(10000);
BENCHMARK_CAPTURE(create_and_close, answered, 1)->Arg(10)->Arg(1000)->Arg(10000);

// As many packets as the ring holds to one client, then the ring is emptied.
void send_to_one(benchmark::State &state) {
    client_world *world = zeb_bench::world_of(state, 1);
    if (world == nullptr) return;
    int64_t queued = 0;
    while (state.KeepRunningBatch(k_ring_room)) {
        queued += give(world->client(0), k_ring_room);
        state.PauseTiming();
        (void)zeb_bench::take_queued(world->client(0));  // they were counted as they were queued
        state.ResumeTiming();
    }
    require(state, queued == state.iterations(), "not queued");
}
BENCHMARK(send_to_one);

// One packet to each of them, so that each has to be fetched from memory.
void send_to_each(benchmark::State &state) {
    client_world *world = zeb_bench::world_of(state, static_cast<int>(state.range(0)));
    if (world == nullptr) return;
    for (zeb::mqtt_client *client : world->clients()) (void)give(client, 1);  // the first one makes the ring
    (void)zeb_bench::take_all_queued(*world);
    int64_t queued = 0;
    while (state.KeepRunningBatch(world->count())) {
        for (zeb::mqtt_client *client : world->clients()) queued += give(client, 1);
        state.PauseTiming();
        (void)zeb_bench::take_all_queued(*world);  // they were counted as they were queued
        state.ResumeTiming();
    }
    require(state, queued == state.iterations(), "not queued");
}
BENCHMARK(send_to_each)->Arg(1000)->Arg(10000);

void start_with_11000_clients(benchmark::State &state) {
    if (zeb_bench::world_of(state, 0) == nullptr) return;
    int64_t failed = 0;
    for (auto _ : state) {
        zeb::client_mgr_deinit();
        zeb_bench::timed(state, [&] { failed += zeb::client_mgr_init(zeb::CLIENT_MAX) != 0 ? 1 : 0; });
    }
    require(state, failed == 0 && zeb::g_client_mgr.capacity.load() == zeb::CLIENT_MAX, "not started");
}
BENCHMARK(start_with_11000_clients)->Iterations(20)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

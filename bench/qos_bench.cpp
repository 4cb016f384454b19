// What a message in flight costs: registering it, acknowledging it, and the pass that looks for due ones,
// which holds the list's mutex and so must be short even over 100000 messages.
#include <atomic>
#include <cstdio>

#include "bench/bench_support.h"
#include "log/platform_time.h"
#include "qos/qos_reliable.h"

namespace {

using zeb_bench::client_world;
using zeb_bench::require;

constexpr int k_holders = 100;  // hold what is in flight; the client behind them is the one measured
constexpr int k_due_each = 10;
constexpr int k_due = k_holders * k_due_each;
constexpr uint16_t k_first_due_id = 50000;
constexpr uint16_t k_measured_id = 60000;
constexpr uint64_t k_start_ms = 1000000;

// Time stands still unless a benchmark moves it: a message is due when the benchmark says so.
std::atomic<uint64_t> s_now_ms{k_start_ms};

void hold_time() {
    static constexpr zeb::platform_clock k_clock{[] { return s_now_ms.load(std::memory_order_relaxed); },
                                                 nullptr, zeb_bench::sleep_shortly};
    zeb::platform_set_clock(&k_clock);
}

int add(zeb::mqtt_client *client, uint16_t id) {
    static const zeb::mqtt_publish_para k_publication = [] {
        zeb::mqtt_publish_para pub{};
        snprintf(pub.topic, sizeof pub.topic, "bench/topic");
        return pub;
    }();
    static constexpr uint8_t k_payload[64] = {};
    return zeb::qos_reliable_add_packet(client, id, 1, &k_publication, k_payload, sizeof k_payload) == 0 ? 1
                                                                                                         : 0;
}

int acknowledge(zeb::mqtt_client *client, uint16_t id) {
    return zeb::qos_reliable_handle_ack(client, id, zeb::MQTT_PKT_PUBACK) == 0 ? 1 : 0;
}

// The clients with so many messages in flight, `each` to a client. Null when it cannot be.
client_world *world_with(benchmark::State &state, int64_t in_flight, int64_t each) {
    client_world *world = zeb_bench::world_of(state, k_holders + 1);
    if (world == nullptr) return nullptr;
    hold_time();
    for (zeb::mqtt_client *client : world->clients()) zeb::qos_reliable_drop_client(client);
    int64_t added = 0;
    for (int64_t i = 0; i < in_flight; ++i)
        added += add(world->client(static_cast<int>(i / each)), static_cast<uint16_t>(i % each + 1));
    return require(state, added == in_flight, "not registered") ? world : nullptr;
}

client_world *world_with(benchmark::State &state) {
    return world_with(state, state.range(0), zeb::QOS_MAX_PER_CLIENT);
}

void register_and_acknowledge(benchmark::State &state) {
    client_world *world = world_with(state);
    if (world == nullptr) return;
    zeb::mqtt_client *client = world->client(k_holders);
    int64_t done = 0;
    for (auto _ : state) {
        done += add(client, k_measured_id);
        done += acknowledge(client, k_measured_id);
    }
    require(state, done == 2 * state.iterations() && client->inflight == 0, "not registered");
}
BENCHMARK(register_and_acknowledge)->Arg(1)->Arg(1000)->Arg(100000);

// As many as a client may have, then all of them are acknowledged.
void register_alone(benchmark::State &state) {
    client_world *world = world_with(state);
    if (world == nullptr) return;
    zeb::mqtt_client *client = world->client(k_holders);
    int64_t done = 0;
    while (state.KeepRunningBatch(zeb::QOS_MAX_PER_CLIENT)) {
        for (int i = 0; i < zeb::QOS_MAX_PER_CLIENT; ++i) done += add(client, static_cast<uint16_t>(i + 1));
        state.PauseTiming();
        zeb::qos_reliable_drop_client(client);
        state.ResumeTiming();
    }
    require(state, done == state.iterations(), "not registered");
}
BENCHMARK(register_alone)->Arg(1)->Arg(1000)->Arg(100000);

void acknowledge_alone(benchmark::State &state) {
    client_world *world = world_with(state);
    if (world == nullptr) return;
    zeb::mqtt_client *client = world->client(k_holders);
    int64_t done = 0;
    while (state.KeepRunningBatch(zeb::QOS_MAX_PER_CLIENT)) {
        state.PauseTiming();
        for (int i = 0; i < zeb::QOS_MAX_PER_CLIENT; ++i) done += add(client, static_cast<uint16_t>(i + 1));
        state.ResumeTiming();
        for (int i = 0; i < zeb::QOS_MAX_PER_CLIENT; ++i)
            done += acknowledge(client, static_cast<uint16_t>(i + 1));
    }
    require(state, done == 2 * state.iterations() && client->inflight == 0, "not acknowledged");
}
BENCHMARK(acknowledge_alone)->Arg(1)->Arg(1000)->Arg(100000);

void scan_pass_with_none_due(benchmark::State &state) {
    client_world *world = world_with(state);
    if (world == nullptr) return;
    for (auto _ : state) zeb::qos_reliable_scan_queue();
    require(state, zeb_bench::take_all_queued(*world) == 0, "something was repeated");
}
BENCHMARK(scan_pass_with_none_due)->Arg(1)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

template <typename Visit>
int64_t for_each_due(const client_world &world, Visit visit) {
    int64_t done = 0;
    for (int i = 0; i < k_due; ++i)
        done += visit(world.client(i / k_due_each), static_cast<uint16_t>(k_first_due_id + i % k_due_each));
    return done;
}

// A message is repeated less and less often, so each pass gets new ones: registered as if a little more than
// the first interval had passed since, and acknowledged afterwards.
void scan_pass_with_1000_due(benchmark::State &state) {
    const int64_t others = state.range(0) - k_due;
    client_world *world = world_with(state, others, zeb::QOS_MAX_PER_CLIENT - k_due_each);
    if (world == nullptr) return;
    int64_t registered = 0;
    int64_t repeated = 0;
    int64_t acknowledged = 0;
    for (auto _ : state) {
        s_now_ms.store(k_start_ms - zeb::QOS_FIRST_INTERVAL_MS - 1);
        registered += for_each_due(*world, add);
        s_now_ms.store(k_start_ms);
        zeb_bench::timed(state, [] { zeb::qos_reliable_scan_queue(); });
        repeated += zeb_bench::take_all_queued(*world);
        acknowledged += for_each_due(*world, acknowledge);
    }
    require(state, registered == state.iterations() * k_due && acknowledged == registered, "not registered");
    require(state, repeated == registered, "wrong number of repetitions");
    state.SetItemsProcessed(repeated);
}
BENCHMARK(scan_pass_with_1000_due)
    ->Arg(k_due)
    ->Arg(k_holders *zeb::QOS_MAX_PER_CLIENT)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

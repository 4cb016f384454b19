// What a full store of retained messages costs: changing one of them, which is written to the file before the
// publisher gets its answer, and finding those that a new subscription asks for.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "bench/bench_support.h"
#include "log/platform_time.h"
#include "packet/packet_handler.h"
#include "persist/persist.h"
#include "stats/mqtt_stats.h"
#include "sub/retain_store.h"

namespace {

using zeb_bench::require;

constexpr int k_topics_per_group = 50;
constexpr uint32_t k_payload_bytes = 64;

void topic_of(int i, char (&out)[257]) {
    snprintf(out, sizeof out, "bench/%d/%d", i / k_topics_per_group, i);
}

// Not by setting each of them, which would write the file as often. The file is in the working directory.
bool fill_store() {
    zeb::persist_init("bench_data");
    if (zeb::sub_init() != 0) return false;
    const auto messages = std::make_unique<zeb::retain_msg[]>(zeb::RETAIN_MAX);
    for (int i = 0; i < zeb::RETAIN_MAX; ++i) {
        zeb::retain_msg &msg = messages[static_cast<size_t>(i)];
        topic_of(i, msg.topic);
        msg.payload_len = k_payload_bytes;
        memset(msg.payload, 'x', k_payload_bytes);
        msg.timestamp = zeb::platform_wall_sec();
    }
    return zeb::retain_store_replace(messages.get(), zeb::RETAIN_MAX) == zeb::RETAIN_MAX &&
           zeb::persist_retain_save() == 0;
}

void update_one_of_1000_retained(benchmark::State &state) {
    if (!require(state, fill_store(), "store not filled")) return;
    const uint64_t written = zeb::g_mqtt_stats.persist_write.load();
    uint8_t payload[k_payload_bytes] = {};
    char topic[257];
    int64_t failed = 0;
    uint32_t round = 0;
    for (auto _ : state) {
        ++round;
        memcpy(payload, &round, sizeof round);  // always another message
        topic_of(static_cast<int>(round % zeb::RETAIN_MAX), topic);
        failed += zeb::retain_msg_set(topic, payload, sizeof payload, 1) != 0 ? 1 : 0;
    }
    zeb::retain_msg stored;
    const bool found = zeb::retain_msg_get(topic, &stored) == 0;
    require(state, failed == 0 && found && memcmp(stored.payload, payload, sizeof payload) == 0,
            "not updated");
    require(state, zeb::g_mqtt_stats.persist_write.load() - written == round, "not written");
}
BENCHMARK(update_one_of_1000_retained);

struct lookup_case {
    const char *name;
    const char *filter;
    int messages;
};
constexpr lookup_case k_lookups[] = {
    {"none", "other/#", 0},
    {"exact", "bench/10/500", 1},
    {"plus", "bench/10/+", k_topics_per_group},
    {"hash", "bench/10/#", k_topics_per_group},
};

void retained_for_filter(benchmark::State &state, const lookup_case &c) {
    zeb_bench::client_world *world = zeb_bench::world_of(state, 1);
    if (world == nullptr || !require(state, fill_store(), "store not filled")) return;
    int64_t delivered = 0;
    for (auto _ : state) {
        zeb_bench::timed(state, [&] { zeb::send_retained_msg_to_client(world->client(0), c.filter); });
        delivered += zeb_bench::take_queued(world->client(0));
    }
    require(state, delivered == state.iterations() * c.messages, "wrong number of messages");
    state.SetItemsProcessed(delivered);
}

[[maybe_unused]] const bool k_added = [] {
    for (const lookup_case &c : k_lookups)
        benchmark::RegisterBenchmark((std::string("retained_of_1000/") + c.name).c_str(), retained_for_filter,
                                     c)
            ->UseManualTime();
    return true;
}();

}  // namespace

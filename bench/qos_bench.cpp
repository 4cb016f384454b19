// What a message in flight costs: registering it, acknowledging it, and the pass that looks for due ones,
// which holds the list's mutex and so must be short even over 100000 messages.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>

#include "client/client_mgr.h"
#include "log/agent_log.h"
#include "qos/qos_reliable.h"

namespace {

constexpr int k_clients = 101;  // at most 1000 messages each; the last one is the one measured
constexpr uint16_t k_measured_id = 60000;

class in_flight : public benchmark::Fixture {
  public:
    void SetUp(benchmark::State &state) override {
        zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL);
        if (zeb::client_mgr_init(k_clients) != 0) state.SkipWithError("no client table");
        zeb::mqtt_stop_send_thread();
        zeb::qos_reliable_destroy();  // the passes run when the benchmark asks
        char id[16];
        for (int i = 0; i < k_clients; ++i) {
            zeb::mqtt_client *client = zeb::client_create(static_cast<uint32_t>(i), "127.0.0.1", 1, nullptr);
            snprintf(id, sizeof id, "c%d", i);
            zeb::client_set_cid(client, id);
            clients_.push_back(client);
        }
        snprintf(pub_.topic, sizeof pub_.topic, "bench/topic");
        for (int64_t i = 0; i < state.range(0); ++i)
            add(clients_[static_cast<size_t>(i / zeb::QOS_MAX_PER_CLIENT)],
                static_cast<uint16_t>(i % zeb::QOS_MAX_PER_CLIENT + 1));
    }
    void TearDown(benchmark::State &) override {
        clients_.clear();
        zeb::client_mgr_deinit();
    }

  protected:
    void add(zeb::mqtt_client *client, uint16_t id) {
        static const uint8_t payload[64] = {};
        zeb::qos_reliable_add_packet(client, id, 1, &pub_, payload, sizeof payload);
    }
    std::vector<zeb::mqtt_client *> clients_;
    zeb::mqtt_publish_para pub_{};
};

BENCHMARK_DEFINE_F(in_flight, register_and_acknowledge)(benchmark::State &state) {
    zeb::mqtt_client *client = clients_.back();
    for (auto _ : state) {
        add(client, k_measured_id);
        zeb::qos_reliable_handle_ack(client, k_measured_id, zeb::MQTT_PKT_PUBACK);
    }
}
BENCHMARK_REGISTER_F(in_flight, register_and_acknowledge)->Arg(1)->Arg(1000)->Arg(100000);

BENCHMARK_DEFINE_F(in_flight, scan_pass_with_none_due)(benchmark::State &state) {
    for (auto _ : state) zeb::qos_reliable_scan_queue();
}
// Short of the second after which the first would be due.
BENCHMARK_REGISTER_F(in_flight, scan_pass_with_none_due)
    ->Arg(1)
    ->Arg(1000)
    ->Arg(100000)
    ->Iterations(100)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

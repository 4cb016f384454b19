#include "bench/bench_support.h"

#include <memory>
#include <string>

#include "qos/qos_reliable.h"

namespace zeb_bench {

client_world::client_world(int count) {
    // One more than there are, for a benchmark that creates clients itself.
    if (zeb::client_mgr_init(count + 1) != 0) return;
    zeb::mqtt_stop_send_thread();
    zeb::qos_reliable_destroy();
    clients_.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        zeb::mqtt_client *client = zeb::client_create(static_cast<uint32_t>(i), "127.0.0.1", 1, nullptr);
        if (client == nullptr) return;
        zeb::client_set_cid(client, ("c" + std::to_string(i)).c_str());
        client->clean_session.store(1);
        clients_.push_back(client);
    }
    complete_ = true;
}

client_world::~client_world() {
    zeb::client_mgr_deinit();
}

client_world *world_of(benchmark::State &state, int count) {
    static std::unique_ptr<client_world> s_world;
    if (s_world == nullptr || s_world->count() != count) {
        s_world.reset();  // the manager is one for the process
        s_world = std::make_unique<client_world>(count);
    }
    return require(state, s_world->complete(), "no clients") ? s_world.get() : nullptr;
}

int take_queued(zeb::mqtt_client *client) {
    std::lock_guard lock(client->send_lock);
    const int head = client->send_head.load(std::memory_order_relaxed);
    const int tail = client->send_tail.load(std::memory_order_relaxed);
    client->send_head.store(static_cast<uint8_t>(tail), std::memory_order_relaxed);
    return (tail + zeb::CLIENT_SEND_RING_SIZE - head) % zeb::CLIENT_SEND_RING_SIZE;
}

int take_all_queued(const client_world &world) {
    int packets = 0;
    for (zeb::mqtt_client *client : world.clients()) packets += take_queued(client);
    return packets;
}

}  // namespace zeb_bench

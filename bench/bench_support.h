#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "client/client_mgr.h"

// What the micro-benchmarks share: a client manager without a network and without threads, and the taking of
// what it has queued. A benchmark that has not done what it claims to time ends as an error.
namespace zeb_bench {

inline constexpr int k_ring_room = zeb::CLIENT_SEND_RING_SIZE - 1;  // one slot tells full from empty

// The library's threads wait at most this long to be joined, so that a world is set up and left quickly.
void sleep_shortly(uint64_t us);

inline bool require(benchmark::State &state, bool happened, const char *what) {
    if (!happened) state.SkipWithError(what);
    return happened;
}

// `count` clients on the handles 0 and up, called "c0" and up, none with a socket. Nothing but the benchmark
// runs: no send thread and no scan thread.
class client_world {
  public:
    explicit client_world(int count);
    ~client_world();
    client_world(const client_world &) = delete;
    client_world &operator=(const client_world &) = delete;

    bool complete() const { return complete_; }
    int count() const { return static_cast<int>(clients_.size()); }
    zeb::mqtt_client *client(int i) const { return clients_[static_cast<size_t>(i)]; }
    const std::vector<zeb::mqtt_client *> &clients() const { return clients_; }

  private:
    std::vector<zeb::mqtt_client *> clients_;
    bool complete_ = false;
};

// A benchmark is run several times to find out how often it has to repeat: the world of one size is kept.
// Null when it could not be set up; the state then says so.
client_world *world_of(benchmark::State &state, int count);

// The option of that name, as long as the object lives.
class exact_lookup {
  public:
    explicit exact_lookup(bool on) { zeb::g_client_options.exact_lookup.store(on ? 1 : 0); }
    ~exact_lookup() { zeb::g_client_options.exact_lookup.store(0); }
    exact_lookup(const exact_lookup &) = delete;
    exact_lookup &operator=(const exact_lookup &) = delete;
};

// Empties a client's ring as the send thread does, and returns the number of packets that it held.
int take_queued(zeb::mqtt_client *client);
int take_all_queued(const client_world &world);

// The time of one iteration, for a benchmark with manual time: what it puts back in order is not counted.
template <typename Work>
void timed(benchmark::State &state, Work work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    const auto end = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - begin).count());
}

}  // namespace zeb_bench

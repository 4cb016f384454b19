#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "client/client_mgr.h"
#include "netip/netip_internal.h"

// A whole broker but for its threads, which the input plays: packets come in, rings are flushed, sockets turn
// writable and housekeeping runs when a script says so. Connections are socket pairs in slots of the network
// layer.

namespace zeb_fuzz {

inline constexpr int k_peers = 6;

// A client's side of a connection.
class peer {
  public:
    peer() = default;
    ~peer() { drop(); }
    peer(const peer &) = delete;
    peer &operator=(const peer &) = delete;

    // A new connection; what was there before is gone without a word.
    void connect();
    bool open() const;
    // A packet as the reassembly hands it over. Nothing happens when the connection is closed.
    void bring(const std::vector<uint8_t> &packet);
    // The client goes away.
    void drop();
    // The client reads all that has been sent to it, and checks that it is packets, of its own level.
    void read();
    // The level that the connection has for good; 0 while it has none.
    void fix_level(uint32_t level) { level_ = level; }
    // What the I/O thread does when epoll tells of the connection.
    void on_event(uint32_t events);

    uint32_t handle() const { return handle_; }
    uint32_t generation() const { return generation_; }
    zeb::mqtt_client *client() const;  // null before the first packet and after the end

  private:
    void let_go();

    int fd_ = -1;
    uint32_t handle_ = zeb::NETIP_HANDLE_NONE;
    uint32_t generation_ = 0;
    uint32_t level_ = 0;
    std::vector<uint8_t> received_;
};

// What the callbacks of the application do.
struct application {
    bool refuse_logins = false;  // of users called "bad"
    bool refuse_topics = false;  // that begin with "x"
    uint8_t reaction = 0;        // to events, see broker_world.cpp
    std::string target;          // of the reaction
};

struct broker_world {
    mqtt_broker_instance broker{};
    std::array<peer, k_peers> peers;
    application app;

    // Since the world began, for the invariants: identifiers that had a session to be kept, and which
    // connection was the last to be entered in a slot of the table of identifiers.
    std::set<std::string> persistent_ids;
    std::map<uint32_t, uint64_t> last_in_slot;
    std::map<uint64_t, uint32_t> closing_rings;  // by generation: head and tail when the close was seen
};

broker_world &world();

// Once for the process.
void start_broker();
struct world_options {
    bool with_store = true;  // without one every write and every read of a client's files fails
    bool require_connect = false;
    bool level_by_connect = false;
    bool low_latency = false;
    bool exact_lookup = false;
};

// An empty broker.
void begin_world(const world_options &options);
// Ends all connections, lets all time pass and checks that nothing is left of anybody.
void end_world();
// Ends all connections and starts again with what is stored.
void restart_world();

void flush_rings();
void poll_sockets();

// Brings a packet and notes what it means for the invariants.
void bring_packet(peer *to, const std::vector<uint8_t> &packet);

// What must hold between any two steps.
void check_world();

// For each record that serves a connection, or waits for its will.
template <typename Visit>
void for_each_record(Visit visit) {
    for (int b = 0; b < zeb::g_client_mgr.block_count.load(); ++b) {
        zeb::client_pool_block &block = zeb::g_client_mgr.blocks[b];
        for (int i = 0; i < zeb::CLIENT_POOL_SIZE; ++i)
            if (block.used_map[i].load() != 0) visit(&block.records[i]);
    }
}

}  // namespace zeb_fuzz

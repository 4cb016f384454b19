#include "fuzz/broker_world.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "codec/mqtt_codec.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_clock.h"
#include "fuzz/fuzz_directory.h"
#include "fuzz/fuzz_input.h"
#include "log/agent_log.h"
#include "packet/packet_handler.h"
#include "persist/persist.h"
#include "qos/qos_reliable.h"
#include "stats/mqtt_stats.h"
#include "sub/retain_store.h"

namespace zeb_fuzz {

using namespace zeb;

namespace {

constexpr uint64_t k_for_ever_ms = uint64_t{1} << 43;  // beyond any delay of a will

bool g_login_refused = false;
int g_event_depth = 0;

int on_auth(mqtt_broker_instance *, const mqtt_connect_para *, const char *user, const char *) {
    g_login_refused = world().app.refuse_logins && std::strcmp(user, "bad") == 0;
    return g_login_refused ? 0 : 1;
}

int on_acl(mqtt_broker_instance *, const char *, const char *topic, uint8_t) {
    return world().app.refuse_topics && topic[0] == 'x' ? 0 : 1;
}

int on_event(mqtt_broker_instance *broker, uint32_t, const char *) {
    constexpr int k_depth_max = 2;
    const application &app = world().app;
    if (g_event_depth == k_depth_max) return 0;
    ++g_event_depth;
    static constexpr uint8_t k_payload[] = {'e', 'v', 'e', 'n', 't'};
    switch (app.reaction) {
        case 1:
            (void)zeb_sdk_mqtt_broker_kick_client(broker, app.target.c_str());
            break;
        case 2:
            (void)zeb_sdk_mqtt_broker_publish(broker, app.target.c_str(), k_payload, sizeof k_payload, 2, 1,
                                              5);
            break;
        case 3:
            for (peer &l : world().peers)
                if (l.open()) netip_close(l.handle());
            break;
        case 4:
            (void)zeb_sdk_mqtt_broker_clear_retain(broker, app.target.c_str());
            break;
        default:
            break;
    }
    --g_event_depth;
    return 0;
}

// A copy of the path: persist_init empties the field before it reads what it was given.
std::string g_root;

void start_persistence() {
    FUZZ_CHECK(persist_init(g_root.c_str()) == 0);
    FUZZ_CHECK(g_root == g_persist_root_path &&
               g_root.compare(0, fuzz_directory().size(), fuzz_directory()) == 0);
}

}  // namespace

broker_world &world() {
    static broker_world s_world;
    return s_world;
}

// Peer

void peer::connect() {
    drop();
    int pair[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) == 0);
    const int small = 4608;  // so that a peer that does not read is soon felt
    (void)setsockopt(pair[1], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    fd_ = pair[0];
    netip_conn *conn = nullptr;
    {
        const std::lock_guard guard(g_netip_lock);
        conn = netip_take_slot(NETIP_TYPE_TCP, pair[1], sockaddr_in{}, &generation_);
    }
    FUZZ_CHECK(conn != nullptr);
    handle_ = netip_index(*conn);
    epoll_event event{};
    event.events = NETIP_EPOLL_INPUT;
    event.data.u64 = netip_epoll_data(*conn);
    FUZZ_CHECK(epoll_ctl(g_io_workers[0].epoll_fd, EPOLL_CTL_ADD, pair[1], &event) == 0);
    (void)netip_fire(handle_, NETIP_EVENT_CONNECT, nullptr, 0, NETIP_REASON_PEER);
}

bool peer::open() const {
    return handle_ != NETIP_HANDLE_NONE && netip_is_current(g_netip_clients[handle_], generation_);
}

void peer::bring(const std::vector<uint8_t> &packet) {
    if (!open() || packet.empty()) return;
    netip_conn &conn = g_netip_clients[handle_];
    if (!netip_pin(conn, generation_)) return;
    const exact_block block(packet);
    (void)netip_fire(handle_, NETIP_EVENT_DATA, block.data(), static_cast<uint32_t>(block.size()),
                     NETIP_REASON_DATA);
    netip_unpin(conn);
}

void peer::on_event(uint32_t events) {
    netip_conn &conn = g_netip_clients[handle_];
    if (!netip_pin(conn, generation_)) return;
    if ((events & EPOLLOUT) != 0 && netip_output_ready(conn, generation_)) client_socket_writable(handle_);
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) netip_close_by_peer(conn, generation_);
    netip_unpin(conn);
}

void peer::drop() {
    let_go();
    if (open()) on_event(EPOLLHUP);
    handle_ = NETIP_HANDLE_NONE;
    received_ = {};
    level_ = 0;
}

void peer::let_go() {
    if (fd_ >= 0) (void)::close(fd_);
    fd_ = -1;
}

mqtt_client *peer::client() const {
    return open() ? client_find_by_handle(handle_) : nullptr;
}

namespace {

// A PUBLISH decodes at the level of who gets it. One with a topic alias does not, because of the byte that
// the encoder puts before it: its property block is 4 bytes long, or 9 with the expiry.
void check_publish(uint32_t level, const uint8_t *data, int size) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    ctx.protocol_version.store(level);
    ctx.level_fixed.store(1);
    mqtt_publish_para publish;
    int len = size;
    if (mqtt_codec_decode_publish(&ctx, data, &len, &publish) == MQTT_CODEC_OK) return;
    const int id_offset = mqtt_codec_publish_id_offset(data, size);
    int used = 0;
    (void)codec_decode_remaining_length(data + 1, size - 1, &used);
    const int topic = 1 + used;
    const int properties = id_offset > 0 ? id_offset + 2 : topic + 2 + (data[topic] << 8 | data[topic + 1]);
    FUZZ_CHECK(level == 5 && properties < size && (data[properties] == 4 || data[properties] == 9));
}

}  // namespace

void peer::read() {
    if (fd_ < 0) return;
    uint8_t chunk[8192];
    for (ssize_t n = 0; (n = recv(fd_, chunk, sizeof chunk, MSG_DONTWAIT)) > 0;)
        received_.insert(received_.end(), chunk, chunk + n);
    constexpr uint16_t k_sent_by_brokers = 0x6AFC;  // a bit for each type
    std::size_t pos = 0;
    while (pos < received_.size()) {
        int used = 0;
        const int left = static_cast<int>(received_.size() - pos);
        const int32_t rest = codec_decode_remaining_length(received_.data() + pos + 1, left - 1, &used);
        FUZZ_CHECK((k_sent_by_brokers >> (received_[pos] >> 4) & 1) != 0);
        FUZZ_CHECK(rest >= 0 || left < 4);
        if (rest < 0 || 1 + used + rest > left) break;
        if (level_ != 0 && received_[pos] >> 4 == MQTT_PKT_PUBLISH)
            check_publish(level_, received_.data() + pos, 1 + used + rest);
        pos += static_cast<std::size_t>(1 + used + rest);
    }
    received_.erase(received_.begin(), received_.begin() + static_cast<std::ptrdiff_t>(pos));
}

// World

void start_broker() {
    fuzz_clock::install();
    g_io_thread_num = 1;
    g_io_workers[0].epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    FUZZ_CHECK(g_io_workers[0].epoll_fd >= 0);
    broker_world &w = world();
    w.broker.auth_cb = on_auth;
    w.broker.acl_cb = on_acl;
    w.broker.event_cb = on_event;
    w.broker.keepalive_timeout = 300;
    g_netip_cb.store(mqtt_netip_event_cb);
    g_netip_cb_arg.store(&w.broker);
    FUZZ_CHECK(packet_handler_init() == 0 && client_mgr_init(100) == 0);
    // The input is all the threads there are.
    mqtt_stop_send_thread();
    qos_reliable_destroy();
    mqtt_stats_init();
}

void begin_world(const world_options &options) {
    fuzz_clock::reset();
    g_packet_options.require_connect.store(options.require_connect ? 1 : 0);
    g_packet_options.level_by_connect.store(options.level_by_connect ? 1 : 0);
    g_client_options.low_latency.store(options.low_latency ? 1 : 0);
    g_client_options.exact_lookup.store(options.exact_lookup ? 1 : 0);
    g_rr_counter.store(0);
    msgid_seed = 1;
    g_last_handle = 0;
    g_root = fuzz_directory() + (options.with_store ? "/store" : "/absent/store");
    start_persistence();
}

namespace {

void end_connections() {
    world().app = application{};
    for (peer &l : world().peers) l.drop();
    check_world();
    fuzz_clock::advance_ms(k_for_ever_ms);
    client_will_delay_pass();
    client_will_delay_scan();
    check_world();
    FUZZ_CHECK(g_client_mgr.client_count.load() == 0 && client_get_connected_count() == 0);
    FUZZ_CHECK(g_will_delay_client_count.load() == 0);
    FUZZ_CHECK(g_pending_queue == nullptr);
    for (const auto &slot : g_client_mgr.by_handle) FUZZ_CHECK(slot.load() == nullptr);
}

// As a new start would find them. To allocate them anew takes a hundred times as long.
void empty_tables() {
    std::set<std::string> ids;
    for (int pos = 0; pos < g_sub_mgr.sub_count.load(); ++pos) ids.insert(g_sub_mgr.subs[pos].client_id);
    for (const std::string &id : ids) FUZZ_CHECK(sub_remove(id.c_str(), nullptr) > 0);
    FUZZ_CHECK(g_sub_mgr.sub_count.load() == 0);
    (void)retain_store_replace(nullptr, 0);
}

}  // namespace

void end_world() {
    end_connections();
    empty_tables();
    empty_fuzz_directory();
    // Nothing is left allocated, or every input would be looked through for leaks.
    broker_world &w = world();
    w.app = application{};
    w.persistent_ids.clear();
    w.last_in_slot.clear();
    w.closing_rings.clear();
}

void restart_world() {
    end_connections();
    world().last_in_slot.clear();
    empty_tables();
    start_persistence();
}

void flush_rings() {
    client_flush_queued();
}

void poll_sockets() {
    epoll_event events[k_peers];
    const int count = epoll_wait(g_io_workers[0].epoll_fd, events, k_peers, 0);
    for (int i = 0; i < count; ++i) {
        const uint32_t handle = static_cast<uint32_t>(events[i].data.u64) - 1;
        const uint32_t generation = static_cast<uint32_t>(events[i].data.u64 >> 32);
        for (peer &l : world().peers)
            if (l.handle() == handle && l.generation() == generation) l.on_event(events[i].events);
    }
}

namespace {

constexpr uint64_t k_gone = UINT64_MAX;  // a connection that its own CONNECT has ended

// A CONNECT enters its client in the table of identifiers, whatever becomes of it afterwards.
void note_connect(const mqtt_connect_para &connect, uint64_t generation) {
    constexpr std::size_t k_stored = 63;
    const std::string id = std::string(connect.client_id).substr(0, k_stored);
    if (id.empty()) return;  // see bring_packet
    world().last_in_slot[client_cid_hash(id.c_str()) % CLIENT_MAX] = generation;
    if (connect.clean_start == 0) world().persistent_ids.insert(id);
}

}  // namespace

void bring_packet(peer *to, const std::vector<uint8_t> &packet) {
    const bool is_connect = !packet.empty() && packet[0] >> 4 == MQTT_PKT_CONNECT;
    if (!is_connect || !to->open()) {
        to->bring(packet);
        return;
    }
    // As the connection will decode it, which may refuse a level other than that of its first CONNECT.
    mqtt_codec_ctx ctx{};
    if (const mqtt_client *before = to->client(); before != nullptr) {
        ctx.protocol_version.store(before->codec.protocol_version.load());
        ctx.level_fixed.store(before->codec.level_fixed.load());
    }
    mqtt_connect_para connect;
    int len = static_cast<int>(packet.size());
    const bool decodes = mqtt_codec_decode_connect(&ctx, packet.data(), &len, &connect) == MQTT_CODEC_OK;
    g_login_refused = false;
    to->bring(packet);
    if (!decodes || g_login_refused) return;
    const mqtt_client *client = to->client();
    const uint64_t generation = client != nullptr ? client->generation.load() : k_gone;
    note_connect(connect, generation);
    if (client != nullptr && client->codec.level_fixed.load() != 0)
        to->fix_level(client->codec.protocol_version.load());
    if (connect.client_id[0] == '\0' && client != nullptr)
        world().last_in_slot[client_cid_hash(client->client_id) % CLIENT_MAX] = generation;
}

}  // namespace zeb_fuzz

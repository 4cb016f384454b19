// Whole connections: a script of what several clients, the application, the clock and the broker's own
// threads do, with the broker's invariants checked after each step.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "codec/mqtt_codec.h"
#include "fuzz/broker_world.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_clock.h"
#include "fuzz/fuzz_input.h"
#include "log/agent_log.h"
#include "qos/qos_queue.h"
#include "sub/retain_store.h"
#include "tests/packet/packet_bytes.h"

using namespace zeb;
using namespace zeb_fuzz;
using zeb_test::bytes;
using zeb_test::operator+;

namespace {

// Few of each, so that a script meets itself again.
std::string read_id(fuzz_input *in) {
    static const std::string ids[] = {
        "a",
        "b",
        "persistent",
        "Aa",  // one hash with the next
        "BB",
        std::string(64, 'i'),  // stored as 63
        std::string(63, 'i'),
        "",
        "../up",
        "..",
        "x\"y",
        "auto_1700000000",
        "{\"topic\":\"t\",\"qos\":1}",
        "okm",  // one slot of the table with "a", of another hash
    };
    constexpr uint32_t k_count = sizeof ids / sizeof ids[0];
    const uint32_t choice = in->below(k_count + 1);
    return choice < k_count ? ids[choice] : in->text();
}

std::string read_topic(fuzz_input *in) {
    static const std::string topics[] = {
        "t", "t/1", "a/b", "$SYS/x", "x/refused", std::string(256, 't'), "q\"uote", "t/"};
    const uint32_t choice = in->below(9);
    return choice < 8 ? topics[choice] : in->text();
}

std::string read_filter(fuzz_input *in) {
    static const std::string filters[] = {
        "t",          "t/+",       "#",  "+",   "a/#", "$share/g/t", "$share/g/#",
        "$share/h/+", "x/refused", "a+", "+/+", "t/1", "$share/g/",  "{\"topic\":\"t\""};
    const uint32_t choice = in->below(15);
    return choice < 14 ? filters[choice] : in->text();
}

bytes read_payload(fuzz_input *in) {
    const uint8_t kind = in->u8();
    if (kind < 0xC0) return bytes(kind % 16u, static_cast<uint8_t>('p' + kind % 4));
    if (kind < 0xE0) return bytes((kind & 31u) * 64u, 'P');
    return in->block();
}

int level_of(const peer &l) {
    const mqtt_client *client = l.client();
    return client != nullptr ? static_cast<int>(client->codec.protocol_version.load()) : 4;
}

bytes build_connect(fuzz_input *in) {
    zeb_test::connect_options o;
    const uint8_t flags = in->u8();
    o.level = flags & 1 ? 5 : 4;
    o.clean = (flags & 2) != 0;
    o.will = (flags & 4) != 0;
    o.will_retain = (flags & 8) != 0;
    o.will_qos = static_cast<uint8_t>(flags >> 4 & 3);
    if (flags & 0x40) o.user = "bad";
    o.keep_alive = flags & 0x80 ? 1 : 60;
    if (o.level == 5) {
        o.properties = zeb_test::bytes{0x27} + zeb_test::be32(in->below(2) != 0 ? 4096 : 300);
        o.properties = o.properties + bytes{0x11} + zeb_test::be32(in->below(4) * 100);
        const uint32_t delay = in->below(4);
        if (delay != 0) o.will_properties = bytes{0x18} + zeb_test::be32(delay == 3 ? UINT32_MAX : delay);
    }
    if (o.will) {
        o.will_topic = read_topic(in);
        const bytes payload = read_payload(in);
        o.will_payload.assign(payload.begin(), payload.end());
    }
    return zeb_test::connect_packet(read_id(in), o);
}

bytes build_publish(fuzz_input *in, int level) {
    const uint8_t flags = in->u8();
    const int qos = (flags & 3) % 3;
    const int retain = flags >> 2 & 1;
    bytes properties;
    if (flags & 8) properties = bytes{0x02} + zeb_test::be32(in->u8());
    bytes body = read_payload(in);
    if (level == 5) body = zeb_test::varint(properties.size()) + properties + body;
    const std::string topic = read_topic(in);
    return zeb_test::publish_packet(topic, body, qos, in->u8(), retain | (flags >> 4 & 1) << 3);
}

bytes build_subscribe(fuzz_input *in, int level) {
    std::vector<zeb_test::filter_request> filters;
    const uint32_t count = 1 + in->below(4);
    for (uint32_t i = 0; i < count; ++i) {
        const int qos = in->u8() & 3;
        filters.push_back({read_filter(in), qos});
    }
    return zeb_test::subscribe_packet(in->u8(), filters, level);
}

bytes build_unsubscribe(fuzz_input *in, int level) {
    zeb_test::texts filters;
    const uint32_t count = in->below(3);
    for (uint32_t i = 0; i < count; ++i) filters.push_back(read_filter(in));
    return zeb_test::unsubscribe_packet(in->u8(), filters, level);
}

// The identifier of one of the messages that are in flight to the client, or any.
uint16_t read_inflight_id(fuzz_input *in, const mqtt_client *client) {
    const uint8_t choice = in->u8();
    if (choice >= 0xF0) return in->u16();
    const std::lock_guard lock(g_queue_mutex);
    int number = choice;
    for (const qos_packet *pkt = g_pending_queue; pkt != nullptr; pkt = pkt->next)
        if (pkt->client == client && number-- % 8 == 0) return pkt->msg_id;
    return choice;
}

bytes build_ack(fuzz_input *in, const peer &l, int level) {
    static constexpr uint8_t first_bytes[] = {0x40, 0x50, 0x62, 0x70};
    const uint8_t first = first_bytes[in->u8() & 3];
    bytes body = zeb_test::be16(read_inflight_id(in, l.client()));
    if (level == 5) body.push_back(0);
    return zeb_test::packet(first, body);
}

bytes build_packet(fuzz_input *in, const peer &l, uint8_t kind) {
    const int level = level_of(l);
    switch (kind % 16) {
        case 0:
        case 1:
        case 2:
            return build_connect(in);
        case 3:
        case 4:
            return build_subscribe(in, level);
        case 5:
        case 6:
        case 7:
        case 8:
            return build_publish(in, level);
        case 9:
            return build_unsubscribe(in, level);
        case 10:
        case 11:
            return build_ack(in, l, level);
        case 12:
            return {0xC0, 0x00};
        case 13:
            return level == 5 ? bytes{0xE0, 0x02, 0x00, 0x00} : bytes{0xE0, 0x00};
        case 14:
            return zeb_test::packet(in->u8(), in->block());
        default:
            return in->block();
    }
}

// A packet that is nearly right is worth more than one that is nothing at all.
void spoil(fuzz_input *in, bytes *packet) {
    if (packet->empty()) return;
    const std::size_t at = in->u8() % packet->size();
    const uint8_t value = in->u8();
    if (value < 0x10)
        packet->resize(at);
    else
        (*packet)[at] ^= value;
}

void bring(fuzz_input *in, uint8_t kind) {
    const uint8_t choice = in->u8();
    peer &l = world().peers[choice % k_peers];
    if (!l.open()) l.connect();
    bytes packet = build_packet(in, l, kind);
    if ((choice & 0xC0) == 0xC0) spoil(in, &packet);
    // Rings and queues are full only after many.
    const int times = (choice & 0xC0) == 0x80 ? 1 + in->u8() % 128 : 1;
    for (int i = 0; i < times; ++i) bring_packet(&l, packet);
}

void publish_as_application(fuzz_input *in) {
    const uint8_t flags = in->u8();
    const bytes payload = read_payload(in);
    const std::string topic = read_topic(in);
    (void)zeb_sdk_mqtt_broker_publish(&world().broker, topic.c_str(), payload.data(),
                                      static_cast<int>(payload.size()), flags & 3u, flags >> 2 & 1,
                                      flags & 8 ? in->u8() : 0u);
}

void move_clock(fuzz_input *in) {
    const uint8_t choice = in->u8();
    if (choice >= 0xE0)
        fuzz_clock::step_wall_ms((choice & 1 ? 1 : -1) * 3600 * 1000);
    else
        fuzz_clock::advance_ms(uint64_t{1} << choice % 20);
}

void keep_house(fuzz_input *in) {
    switch (in->u8() % 8) {
        case 0:
        case 1:
            return qos_reliable_scan_queue();
        case 2:
            (void)client_clean_timeout(world().broker.keepalive_timeout * 1000u);
            return;
        case 3:
            return client_will_delay_scan();
        case 4:
            return client_will_delay_pass();
        case 5:
            return client_clean_expired_sessions();
        case 6:
            return retain_clean_expired();
        default:
            (void)netip_close_unadmitted(in->u8() * 100u);
    }
}

void set_application(fuzz_input *in) {
    application &app = world().app;
    const uint8_t flags = in->u8();
    app.refuse_logins = (flags & 1) != 0;
    app.refuse_topics = (flags & 2) != 0;
    app.reaction = flags >> 2 & 7;
    app.target = app.reaction == 1 ? read_id(in) : read_topic(in);
}

void read_sockets(fuzz_input *in) {
    const uint8_t which = in->u8();
    for (int i = 0; i < k_peers; ++i)
        if ((which >> i & 1) != 0) world().peers[static_cast<std::size_t>(i)].read();
}

void step(fuzz_input *in) {
    const uint8_t op = in->u8();
    if (op < 0xA0) return bring(in, op);
    switch (op % 16) {
        case 0:
        case 1:
            return world().peers[in->u8() % k_peers].drop();
        case 2:
            (void)zeb_sdk_mqtt_broker_kick_client(&world().broker, read_id(in).c_str());
            return;
        case 3:
        case 4:
            return publish_as_application(in);
        case 5:
        case 6:
            return move_clock(in);
        case 7:
        case 8:
        case 9:
            return keep_house(in);
        case 10:
        case 11:
            return flush_rings();
        case 12:
            return read_sockets(in);
        case 13:
            return poll_sockets();
        case 14:
            return set_application(in);
        default:
            (void)zeb_sdk_mqtt_broker_clear_retain(&world().broker, read_topic(in).c_str());
            // Seldom, since it takes long.
            if (in->u8() >= 0xF0) restart_world();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const agent_log_config quiet{AGENT_LOG_FATAL, 0, 0, 0, nullptr};
    agent_log_init(&quiet);
    start_broker();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr int k_steps_max = 300;
    fuzz_input in(data, size);
    const uint8_t header = in.u8();
    // Lines of all levels are put together, and go nowhere.
    agent_log_set_level(header & 8 ? AGENT_LOG_DEBUG : AGENT_LOG_FATAL);
    begin_world({.with_store = (header & 4) == 0,
                 .require_connect = (header & 1) != 0,
                 .level_by_connect = (header & 2) != 0,
                 .low_latency = (header & 16) != 0,
                 .exact_lookup = (header & 32) != 0});
    for (int i = 0; i < k_steps_max && !in.empty(); ++i) {
        step(&in);
        check_world();
    }
    end_world();
    return 0;
}

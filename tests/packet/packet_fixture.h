#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "client/client_mgr.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"
#include "qos/qos_reliable.h"
#include "stats/mqtt_stats.h"
#include "sub/retain_store.h"
#include "tests/packet/packet_bytes.h"
#include "tests/packet/store_double.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"

namespace zeb_test {

// What the callbacks of the application heard, and what they answer.
struct application {
    texts heard;
    std::string refused_user;   // authentication of that user fails
    std::string refused_topic;  // neither subscribing nor publishing there is allowed
};

inline application &app() {
    static application the_app;
    return the_app;
}

inline int app_event(mqtt_broker_instance *, uint32_t event, const char *json) {
    app().heard.push_back("event " + std::to_string(event) + " " + json);
    return 0;
}
inline int app_auth(mqtt_broker_instance *, const mqtt_connect_para *connect, const char *user,
                    const char *password) {
    app().heard.push_back("auth " + std::string(connect->client_id) + " " + user + " " + password);
    return app().refused_user.empty() || app().refused_user != user;
}
inline int app_acl(mqtt_broker_instance *, const char *id, const char *topic, uint8_t action) {
    app().heard.push_back("acl " + std::string(id) + " " + topic + " " + std::to_string(action));
    return app().refused_topic.empty() || app().refused_topic != topic;
}

// The packet handler above a client manager whose send thread is stopped: what is sent stays in the rings.
class packet_fixture : public testing::Test {
  protected:
    explicit packet_fixture(int max_clients = 200) {
        zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL);
        EXPECT_EQ(0, zeb::packet_handler_init());
        EXPECT_EQ(0, zeb::client_mgr_init(max_clients));
        // The tests step time themselves: no thread may send or repeat anything meanwhile.
        zeb::mqtt_stop_send_thread();
        zeb::qos_reliable_destroy();
        zeb::mqtt_stats_init();
        zeb::g_rr_counter.store(0);
        seed(1);
        app() = application();
        store() = store_double();
        broker.event_cb = app_event;
        broker.auth_cb = app_auth;
        broker.acl_cb = app_acl;
        slept_before_us_ = clock.slept_us();
    }
    ~packet_fixture() override {
        held_.clear();
        zeb::client_mgr_deinit();
        zeb::packet_handler_deinit();
        zeb::sub_deinit();
        zeb::agent_log_set_level(zeb::AGENT_LOG_DEBUG);
    }

    // A connection without a socket. It stays readable after its end, until the test is over.
    zeb::mqtt_client *open() {
        zeb::mqtt_client *client = zeb::client_create(next_handle_++, "10.0.0.7", 4711, &broker);
        held_.emplace_back(client);
        return client;
    }
    zeb::mqtt_client *join(std::string_view id, int level = 4, bool clean = true) {
        connect_options o;
        o.level = static_cast<uint8_t>(level);
        o.clean = clean;
        if (level == 5) o.properties = hex("27 00 00 10 00");
        return join(id, o);
    }
    zeb::mqtt_client *join(std::string_view id, const connect_options &o) {
        zeb::mqtt_client *client = open();
        give(client, connect_packet(id, o));
        (void)sent(client);
        app().heard.clear();
        return client;
    }
    // The packet in a heap block of exactly its size, so that a byte too far is seen.
    static void give(zeb::mqtt_client *client, const bytes &data) {
        std::vector<uint8_t> exact;
        exact.reserve(data.size());
        exact.assign(data.begin(), data.end());
        zeb::packet_dispatch(client, exact.data(), static_cast<int32_t>(exact.size()));
    }
    static void give(zeb::mqtt_client *client, std::string_view text) { give(client, hex(text)); }

    void subscribe(zeb::mqtt_client *client, const std::string &filter, int qos) {
        const int level = static_cast<int>(client->codec.protocol_version.load());
        give(client, subscribe_packet(1, {{filter, qos}}, level));
        (void)sent(client);
        app().heard.clear();
    }
    // Takes what is queued for the client, in order.
    static texts sent(zeb::mqtt_client *client) {
        texts out;
        std::lock_guard lock(client->send_lock);
        const zeb::client_send_slot *ring = client->send_ring.load();
        uint8_t head = client->send_head.load();
        for (; head != client->send_tail.load(); head = (head + 1) % zeb::CLIENT_SEND_RING_SIZE)
            out.push_back(dump(ring[head].data, ring[head].len));
        client->send_head.store(head);
        return out;
    }
    static texts dumped(const std::vector<bytes> &packets) {
        texts out;
        for (const bytes &p : packets) out.push_back(dump(p));
        return out;
    }
    static texts just(std::string_view text) { return {dump(hex(text))}; }

    // What the packet handler itself has waited since the test began.
    uint64_t slept_us() const { return clock.slept_us() - slept_before_us_; }

    static void seed(uint32_t value) {
        std::lock_guard lock(zeb::msgid_mutex);
        zeb::msgid_seed = value;
    }
    static int live_subscriptions(const char *id) { return zeb::sub_get_client_sub_count(id); }
    void forget_closed() {
        held_.remove_if([](const zeb::client_ref &held) { return !is_open(held.get()); });
    }
    static bool is_open(const zeb::mqtt_client *client) { return zeb::client_is_online(client); }

    fake_clock clock;
    mqtt_broker_instance broker{};

  private:
    uint64_t slept_before_us_ = 0;
    uint32_t next_handle_ = 9000;
    std::list<zeb::client_ref> held_;
};

// The identifiers that a seed yields, computed apart from the library.
class id_oracle {
  public:
    explicit id_oracle(uint32_t seed) : seed_(seed) {}
    uint16_t draw() { return static_cast<uint16_t>(rand_r(&seed_) % 65533 + 1); }
    uint16_t next() {
        const unsigned a = draw();
        const unsigned b = draw();
        return static_cast<uint16_t>((b / 256) * 256 + a % 256);
    }

  private:
    unsigned seed_;
};

// Whether the texts occur in this order.
inline bool in_order(const std::string &text, const texts &parts) {
    size_t from = 0;
    for (const std::string &part : parts) {
        const size_t at = text.find(part, from);
        if (at == std::string::npos) {
            ADD_FAILURE() << "missing, or out of order: " << part << "\nin:\n" << text;
            return false;
        }
        from = at + part.size();
    }
    return true;
}

}  // namespace zeb_test

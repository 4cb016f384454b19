// What the application is told and asked.
#include "sdk/broker.h"
#include "sub/sub_mgr.h"
#include "tests/sdk/sdk_fixture.h"

namespace {

using zeb_test::broker;
using zeb_test::bytes;
using zeb_test::callbacks;
using zeb_test::connect_options;
using zeb_test::dump;
using zeb_test::eventually;
using zeb_test::hex;
using zeb_test::mqtt_peer;
using zeb_test::publish_packet;

using names = std::vector<std::string>;

class sdk_callback : public testing::Test {
  protected:
    void SetUp() override { callbacks::get().reset(); }

    static names events(uint32_t kind) { return callbacks::get().events(kind); }
    static bool wait_for(uint32_t kind, size_t n) {
        return eventually([&] { return events(kind).size() >= n; });
    }
};

TEST_F(sdk_callback, each_event_of_a_client_is_told_once) {
    broker b(10);
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    mqtt_peer peer("c");
    peer.subscribe("a/#", 2);
    ASSERT_TRUE(peer.send(publish_packet("t", {0xFF}, 1, 3)));
    ASSERT_EQ(peer.read()[0], 0x40);
    ASSERT_TRUE(peer.send("A2 07 00 08 00 03 'a/#'"));
    ASSERT_EQ(peer.read()[0], 0xB0);
    ASSERT_TRUE(peer.send("E0 00"));
    EXPECT_TRUE(peer.at_end());
    ASSERT_TRUE(wait_for(MQTT_BROKER_EVENT_DISCONNECT, 1));
    EXPECT_EQ(events(MQTT_BROKER_EVENT_CONNECT), names{R"({"clientId":"c","topic":"","qos":0})"});
    EXPECT_EQ(events(MQTT_BROKER_EVENT_SUBSCRIBE), names{R"({"clientId":"c","topic":"a/#","qos":2})"});
    EXPECT_EQ(events(MQTT_BROKER_EVENT_PUBLISH), names{R"({"clientId":"c","topic":"t","qos":1})"});
    EXPECT_EQ(events(MQTT_BROKER_EVENT_UNSUBSCRIBE), names{R"({"clientId":"c","topic":"a/#","qos":0})"});
    EXPECT_EQ(events(MQTT_BROKER_EVENT_DISCONNECT), names{R"({"clientId":"c","topic":"","qos":0})"});
    EXPECT_TRUE(events(MQTT_BROKER_EVENT_WILL).empty());
}

TEST_F(sdk_callback, a_long_text_is_cut_at_255_bytes) {
    broker b(10);
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    mqtt_peer peer("c");
    const std::string topic(250, 'x');
    ASSERT_TRUE(peer.send(publish_packet(topic, {0xFF})));
    ASSERT_TRUE(wait_for(MQTT_BROKER_EVENT_PUBLISH, 1));
    const std::string whole = R"({"clientId":"c","topic":")" + topic + R"(","qos":0})";
    EXPECT_EQ(events(MQTT_BROKER_EVENT_PUBLISH)[0], whole.substr(0, 255));
}

TEST_F(sdk_callback, without_callbacks_everything_is_allowed) {
    broker b(10);
    mqtt_peer peer("c");
    mqtt_peer listener("l");
    listener.subscribe("t");
    ASSERT_TRUE(peer.send(publish_packet("t", {0xFF})));
    EXPECT_EQ(dump(listener.read()), "30 04 00 01 74 FF");
    EXPECT_EQ(zeb::broker_fire_auth(nullptr, nullptr, "", ""), 1);
    EXPECT_EQ(zeb::broker_fire_acl(nullptr, "t", 1), 1);
    zeb::broker_fire_event(nullptr, 0, "t", 0);
    const zeb::client_ref client = zeb::client_acquire_by_cid("c");
    ASSERT_TRUE(client);
    EXPECT_EQ(zeb::broker_fire_auth(client.get(), nullptr, "", ""), 1);
    EXPECT_EQ(zeb::broker_fire_acl(client.get(), "t", 1), 1);
    zeb::broker_fire_event(client.get(), 0, "t", 0);
    mqtt_broker_instance *const owner = client->broker.exchange(nullptr);
    EXPECT_EQ(owner, b.get());
    EXPECT_EQ(zeb::broker_fire_auth(client.get(), nullptr, "", ""), 1);
    EXPECT_EQ(zeb::broker_fire_acl(client.get(), "t", 1), 1);
    zeb::broker_fire_event(client.get(), 0, "t", 0);
    client->broker = owner;
}

std::atomic<int> g_auth_calls{0};

int admit_alice(mqtt_broker_instance *, const mqtt_connect_para *connect, const char *username,
                const char *password) {
    ++g_auth_calls;
    EXPECT_STREQ(connect->client_id, "c");
    return strcmp(username, "alice") == 0 && strcmp(password, "pw") == 0 ? 1 : 0;
}

TEST_F(sdk_callback, a_refused_client_gets_its_answer_before_the_end) {
    broker b(10);
    zeb_sdk_mqtt_broker_register_auth_callback(b.get(), admit_alice);
    g_auth_calls = 0;
    for (int i = 0; i < 20; ++i) {
        mqtt_peer refused;
        ASSERT_TRUE(refused.send("10 0D 00 04 'MQTT' 04 02 00 3C 00 01 'c'"));
        EXPECT_EQ(dump(refused.read()), "20 02 00 00") << "level 4 has no room for the reason";
        EXPECT_TRUE(refused.at_end());
    }
    EXPECT_EQ(g_auth_calls, 20);
    mqtt_peer admitted;
    ASSERT_TRUE(admitted.send("10 18 00 04 'MQTT' 04 C2 00 3C 00 01 'c' 00 05 'alice' 00 02 'pw'"));
    EXPECT_EQ(dump(admitted.read()), "20 02 00 00");
    EXPECT_EQ(b.ids(), "c");
}

std::mutex g_acl_lock;
names g_acl_calls;

int allow_nothing_secret(mqtt_broker_instance *, const char *client_id, const char *topic, uint8_t action) {
    const std::lock_guard lock(g_acl_lock);
    g_acl_calls.push_back(std::string(client_id) + " " + topic + " " + std::to_string(action));
    return strstr(topic, "secret") == nullptr ? 1 : 0;
}

TEST_F(sdk_callback, the_acl_callback_decides_about_publications_and_subscriptions) {
    broker b(10);
    g_acl_calls.clear();
    zeb_sdk_mqtt_broker_register_acl_callback(b.get(), allow_nothing_secret);
    mqtt_peer peer("c");
    mqtt_peer listener("l");
    listener.subscribe("#");
    ASSERT_TRUE(peer.send(zeb_test::subscribe_packet(7, "secret/1")));
    EXPECT_EQ(dump(peer.read()), "90 03 00 07 80");
    ASSERT_TRUE(peer.send(publish_packet("secret/2", {0xFF})));
    ASSERT_TRUE(peer.send(publish_packet("open", {0xFF})));
    EXPECT_EQ(dump(listener.read()), dump(hex("30 07 00 04 'open' FF")));
    const std::lock_guard lock(g_acl_lock);
    EXPECT_EQ(g_acl_calls, (names{"l # 0", "c secret/1 0", "c secret/2 1", "c open 1"}));
}

TEST_F(sdk_callback, a_callback_can_be_taken_back) {
    broker b(10);
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    mqtt_peer first("first");
    ASSERT_TRUE(wait_for(MQTT_BROKER_EVENT_CONNECT, 1));
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), nullptr);
    mqtt_peer second("second");
    ASSERT_TRUE(second.is_served());
    EXPECT_EQ(events(MQTT_BROKER_EVENT_CONNECT).size(), 1u);
}

TEST_F(sdk_callback, a_callback_may_use_the_broker_and_kick_the_client_it_is_told_of) {
    broker b(10);
    std::atomic<int> kicked{1};
    callbacks::get().set_hook([&](mqtt_broker_instance *instance, const callbacks::event &e) {
        if (e.kind != MQTT_BROKER_EVENT_PUBLISH) return;
        mqtt_broker_client_info info;
        char list[64];
        EXPECT_EQ(zeb_sdk_mqtt_broker_get_online_count(instance), 2);
        EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_id_list(instance, list, sizeof list), 0);
        EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_info(instance, "c", &info), 0);
        const uint8_t payload = 0xEE;
        EXPECT_EQ(zeb_sdk_mqtt_broker_publish(instance, "from/callback", &payload, 1, 0, 1, 0), 0);
        EXPECT_EQ(zeb_sdk_mqtt_broker_clear_retain(instance, "from/callback"), 0);
        kicked = zeb_sdk_mqtt_broker_kick_client(instance, "c");
    });
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    mqtt_peer listener("l");
    listener.subscribe("#");
    mqtt_peer peer("c");
    ASSERT_TRUE(peer.send(publish_packet("t", {0xFF})));
    EXPECT_EQ(dump(listener.read()), dump(hex("30 10 00 0D 'from/callback' EE")));
    EXPECT_EQ(dump(listener.read()), "30 04 00 01 74 FF");
    EXPECT_EQ(dump(peer.read()), "E0 00");
    EXPECT_TRUE(peer.closed_somehow());
    EXPECT_EQ(kicked, 0);
    EXPECT_EQ(b.ids(), "l");
}

TEST_F(sdk_callback, a_callback_may_register_another_one) {
    broker b(10);
    callbacks::get().set_hook([](mqtt_broker_instance *instance, const callbacks::event &e) {
        if (e.kind != MQTT_BROKER_EVENT_CONNECT) return;
        zeb_sdk_mqtt_broker_register_acl_callback(instance, allow_nothing_secret);
        zeb_sdk_mqtt_broker_register_event_callback(instance, nullptr);
    });
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    mqtt_peer peer("c");
    ASSERT_TRUE(peer.send(zeb_test::subscribe_packet(7, "secret/1")));
    EXPECT_EQ(dump(peer.read()), "90 03 00 07 80");
    EXPECT_EQ(events(MQTT_BROKER_EVENT_CONNECT).size(), 1u);
    EXPECT_TRUE(events(MQTT_BROKER_EVENT_SUBSCRIBE).empty());
}

int kick_and_allow(mqtt_broker_instance *b, const char *client_id, const char *, uint8_t) {
    return zeb_sdk_mqtt_broker_kick_client(b, client_id) == 0;
}

TEST_F(sdk_callback, the_acl_callback_may_kick_the_client_it_decides_about) {
    broker b(10);
    mqtt_peer subscriber("s");
    mqtt_peer publisher("p");
    zeb_sdk_mqtt_broker_register_acl_callback(b.get(), kick_and_allow);
    ASSERT_TRUE(subscriber.send(zeb_test::subscribe_packet(7, "t")));
    EXPECT_EQ(dump(subscriber.read()), "E0 00");
    EXPECT_TRUE(subscriber.closed_somehow());
    ASSERT_TRUE(publisher.send(publish_packet("t", {0xFF}, 1, 9)));
    EXPECT_EQ(dump(publisher.read()), "E0 00");
    EXPECT_TRUE(publisher.closed_somehow());
    EXPECT_TRUE(eventually([] { return zeb::g_client_mgr.client_count == 0; }));
    EXPECT_EQ(zeb::g_sub_mgr.sub_count, 0) << "a subscription allowed too late stays not behind";
}

int kick_and_admit(mqtt_broker_instance *b, const mqtt_connect_para *connect, const char *, const char *) {
    zeb_sdk_mqtt_broker_kick_client(b, connect->client_id);
    return 1;
}

TEST_F(sdk_callback, the_auth_callback_may_kick_the_client_it_decides_about) {
    broker b(10);
    mqtt_peer peer("c");
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    zeb_sdk_mqtt_broker_register_auth_callback(b.get(), kick_and_admit);
    ASSERT_TRUE(peer.send(zeb_test::connect_packet("c")));
    EXPECT_EQ(dump(peer.read()), "E0 00");
    EXPECT_TRUE(peer.closed_somehow());
    EXPECT_TRUE(eventually([] { return zeb::g_client_mgr.client_count == 0; }));
    EXPECT_TRUE(events(MQTT_BROKER_EVENT_CONNECT).empty()) << "it is gone";
}

TEST_F(sdk_callback, a_client_may_be_kicked_from_every_event_about_it) {
    for (uint32_t kind = MQTT_BROKER_EVENT_CONNECT; kind <= MQTT_BROKER_EVENT_WILL; ++kind) {
        broker b(10);
        std::atomic<int> kicks{0};
        callbacks::get().reset();
        callbacks::get().set_hook([&](mqtt_broker_instance *instance, const callbacks::event &e) {
            if (e.kind != kind) return;
            zeb_sdk_mqtt_broker_kick_client(instance, "c");
            ++kicks;
        });
        zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
        {
            connect_options options;
            options.will_topic = "w";
            mqtt_peer peer;
            zeb_test::bytes all = zeb_test::connect_packet("c", options);
            for (const zeb_test::bytes &packet :
                 {zeb_test::subscribe_packet(7, "t"), publish_packet("t", {0xFF}),
                  hex("A2 05 00 08 00 01 't'"),
                  kind == MQTT_BROKER_EVENT_WILL ? zeb_test::bytes{} : hex("E0 00")})
                all.insert(all.end(), packet.begin(), packet.end());
            ASSERT_TRUE(peer.send(all));
            if (kind == MQTT_BROKER_EVENT_WILL) {
                ASSERT_TRUE(wait_for(MQTT_BROKER_EVENT_UNSUBSCRIBE, 1));
                peer.reset();
            }
            EXPECT_TRUE(eventually([&] { return kicks > 0; })) << kind;
        }
        EXPECT_TRUE(eventually([] { return zeb::g_client_mgr.client_count == 0; })) << kind;
        EXPECT_EQ(zeb::g_sub_mgr.sub_count, 0) << kind;
        EXPECT_TRUE(mqtt_peer("after").is_served()) << kind;
    }
}

TEST_F(sdk_callback, a_client_may_be_kicked_while_its_will_is_told) {
    broker b(10);
    std::atomic<int> kicked{1};
    callbacks::get().set_hook([&](mqtt_broker_instance *instance, const callbacks::event &e) {
        if (e.kind == MQTT_BROKER_EVENT_WILL) kicked = zeb_sdk_mqtt_broker_kick_client(instance, "c");
    });
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    connect_options options;
    options.will_topic = "w";
    mqtt_peer peer("c", options);
    peer.reset();
    ASSERT_TRUE(wait_for(MQTT_BROKER_EVENT_WILL, 1));
    EXPECT_TRUE(eventually([&] { return kicked == 0; })) << "its tables are cleared only after the will";
    EXPECT_TRUE(eventually([] { return zeb::g_client_mgr.client_count == 0; }));
    EXPECT_EQ(events(MQTT_BROKER_EVENT_WILL).size(), 1u);
    EXPECT_EQ(zeb::g_will_delay_client_count, 0);
}

TEST_F(sdk_callback, an_application_lock_may_be_held_both_inside_and_outside_of_callbacks) {
    broker b(10);
    std::mutex application;
    std::atomic<int> told{0};
    callbacks::get().set_hook([&](mqtt_broker_instance *, const callbacks::event &) {
        const std::lock_guard lock(application);
        ++told;
    });
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    connect_options options;
    options.will_topic = "w";
    for (int round = 0; round < 50; ++round) {
        mqtt_peer peer("c", options);
        ASSERT_TRUE(peer.send(publish_packet("t", {0xFF})));
        const std::lock_guard lock(application);
        mqtt_broker_client_info info;
        char list[64];
        const uint8_t payload = 0xEE;
        zeb_sdk_mqtt_broker_get_client_info(b.get(), "c", &info);
        zeb_sdk_mqtt_broker_get_client_id_list(b.get(), list, sizeof list);
        EXPECT_EQ(zeb_sdk_mqtt_broker_publish(b.get(), "t", &payload, 1, 1, 1, 0), 0);
        mqtt_broker_stats stats;
        EXPECT_EQ(zeb_sdk_mqtt_broker_get_stats(b.get(), &stats), 0);
        EXPECT_EQ(zeb_sdk_mqtt_broker_clear_retain(b.get(), "t"), 0);
    }
    EXPECT_GE(told, 50);
}

}  // namespace

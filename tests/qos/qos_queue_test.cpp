// The list, its index and the addresses that a pass follows must always tell the same story.
#include <algorithm>
#include <list>
#include <random>

#include "tests/qos/qos_fixture.h"

namespace {

using zeb_test::take_sent;

class qos_queue : public zeb_test::qos_test {};

TEST_F(qos_queue, messages_in_the_middle_leave_without_disturbing_the_order) {
    for (uint16_t id = 1; id <= 6; ++id) ASSERT_EQ(add(id % 2 == 0 ? a_ : b_, id), 0);
    for (const uint16_t id : {3, 6, 1})
        ASSERT_EQ(zeb::qos_reliable_handle_ack(id % 2 == 0 ? a_ : b_, id, 4), 0);
    EXPECT_EQ(queue(), "bob:5 alice:4 alice:2 ");
    ASSERT_EQ(add(a_, 9), 0);
    EXPECT_EQ(queue(), "alice:9 bob:5 alice:4 alice:2 ");
}

TEST_F(qos_queue, a_long_history_of_acknowledged_messages_does_not_slow_down_or_hide_the_rest) {
    zeb::mqtt_client *old = make_client("old");
    ASSERT_EQ(add(old, 1), 0);
    for (int round = 0; round < 20; ++round) {
        for (uint16_t id = 1; id <= 900; ++id) ASSERT_EQ(add(a_, id), 0);
        ASSERT_EQ(add(b_, static_cast<uint16_t>(round + 1)), 0);
        for (uint16_t id = 1; id <= 900; ++id) ASSERT_EQ(zeb::qos_reliable_handle_ack(a_, id, 4), 0);
    }
    std::string expected;
    for (int round = 20; round >= 1; --round) expected += "bob:" + std::to_string(round) + " ";
    EXPECT_EQ(queue(), expected + "old:1 ");
    pass_after(1001);
    EXPECT_EQ(take_sent(b_).size(), 20u);
    EXPECT_EQ(take_sent(old).size(), 1u);
    EXPECT_TRUE(take_sent(a_).empty());
}

// Random registrations, acknowledgements, expiries and cleans against a plain list.
struct model_node {
    zeb::mqtt_client *client;
    uint16_t msg_id;
    bool expires;
};

TEST_F(qos_queue, behaves_like_a_plain_list) {
    std::mt19937 random(42);
    std::vector<zeb::mqtt_client *> clients = {a_, b_};
    for (int i = 0; i < 6; ++i) clients.push_back(make_client(("c" + std::to_string(i)).c_str()));
    std::list<model_node> model;
    const auto find = [&](const zeb::mqtt_client *client, uint16_t id) {
        return std::find_if(model.begin(), model.end(),
                            [&](const model_node &n) { return n.client == client && n.msg_id == id; });
    };
    const auto compare = [&] {
        const zeb::qos_packet *p = zeb::g_pending_queue;
        for (const model_node &n : model) {
            ASSERT_NE(p, nullptr);
            ASSERT_EQ(p->client, n.client);
            ASSERT_EQ(p->msg_id, n.msg_id);
            p = p->next;
        }
        ASSERT_EQ(p, nullptr);
    };
    for (int step = 0; step < 30000; ++step) {
        zeb::mqtt_client *client = clients[random() % clients.size()];
        const auto id = static_cast<uint16_t>(random() % 400 + 1);
        const unsigned action = random() % 1000;
        const auto hit = find(client, id);
        if (action < 550) {
            const bool room = client->inflight < 1000;
            ASSERT_EQ(add(client, id), room ? 0 : -1);
            if (room) model.push_front({client, id, false});
        } else if (action < 970) {
            ASSERT_EQ(zeb::qos_reliable_handle_ack(client, id, 4), hit == model.end() ? -1 : 0);
            if (hit != model.end()) model.erase(hit);
        } else if (action < 990) {
            zeb::qos_reliable_set_packet_expiry(client, id, 1);
            if (hit != model.end()) hit->expires = true;
        } else if (action < 997) {
            zeb::qos_reliable_drop_client(client);
            model.remove_if([&](const model_node &n) { return n.client == client; });
        } else {
            for (zeb::qos_packet *p = zeb::g_pending_queue; p != nullptr; p = p->next)
                p->last_send_ms = clock_.mono_ms() + 1000;  // expiries only: not due after the step below
            pass_after(1000);
            model.remove_if([](const model_node &n) { return n.expires; });
        }
        if (step % 500 == 0) compare();
    }
    compare();
    for (zeb::mqtt_client *client : clients)
        EXPECT_EQ(client->inflight, std::count_if(model.begin(), model.end(),
                                                  [&](const model_node &n) { return n.client == client; }));
}

}  // namespace

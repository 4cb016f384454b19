// What a client has missed reaches it through reliable delivery: the real module here, only the files stood
// in for.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;

class packet_replay : public packet_fixture {
  protected:
    using mqtt_client = zeb::mqtt_client;
    mqtt_client *come_back(std::vector<stored_message> missed) {
        const std::size_t count = missed.size();
        store().sessions["x"] = {{}, std::move(missed), "", ""};
        mqtt_client *client = open();
        connect_options o;
        o.clean = false;
        give(client, connect_packet("x", o));
        EXPECT_EQ(just("20 02 01 00"), sent(client));
        EXPECT_EQ(texts({"finish x " + std::to_string(count)}), calls());
        return client;
    }
    texts pass_after(zeb::mqtt_client *client, uint64_t ms) {
        clock.advance_ms(ms);
        zeb::qos_reliable_scan_queue();
        return sent(client);
    }
};

TEST_F(packet_replay, three_missed_messages_come_a_second_after_connack_without_dup) {
    mqtt_client *client = come_back({{11, "b", "one", 1}, {12, "b", "two", 1}, {13, "b", "three", 2}});
    EXPECT_EQ(texts(), pass_after(client, 1000));
    // Newest first, as the pass walks them.
    EXPECT_EQ(dumped({publish_packet("b", "three", 2, 13), publish_packet("b", "two", 1, 12),
                      publish_packet("b", "one", 1, 11)}),
              pass_after(client, 1));
}

TEST_F(packet_replay, an_acknowledged_one_does_not_come_again_and_the_other_comes_with_dup) {
    mqtt_client *client = come_back({{11, "b", "one", 1}, {12, "b", "two", 1}});
    (void)pass_after(client, 1001);
    give(client, "40 02 00 0C");
    texts again = pass_after(client, 2001);
    ASSERT_EQ(1u, again.size());
    EXPECT_EQ("3A", again[0].substr(0, 2));  // PUBLISH, QoS 1, DUP
    again[0].replace(0, 2, "32");
    EXPECT_EQ(dumped({publish_packet("b", "one", 1, 11)}), again);
}

TEST_F(packet_replay, a_stored_identifier_0_is_replaced) {
    seed(1);
    uint32_t state = 1;
    const int drawn = rand_r(&state) % 65533 + 1;
    mqtt_client *client = come_back({{0, "b", "one", 1}});
    const texts came = pass_after(client, 1001);
    ASSERT_EQ(1u, came.size());
    const bytes packet = hex(came[0]);
    ASSERT_EQ(10u, packet.size());
    EXPECT_EQ(drawn, packet[5] << 8 | packet[6]);
}

TEST_F(packet_replay, qos_0_and_empty_messages_are_lost_with_the_list) {
    mqtt_client *client = come_back({{11, "b", "one", 0}, {12, "b", "", 1}});
    EXPECT_EQ(texts(), pass_after(client, 1001));
}

}  // namespace

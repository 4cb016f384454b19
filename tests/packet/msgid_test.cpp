// Message identifiers of what the broker publishes.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

// The first seed whose identifiers, counted from 1, have a 0 at `position`.
uint32_t seed_with_zero_at(int position) {
    for (uint32_t seed = 1;; ++seed) {
        id_oracle ids(seed);
        for (int i = 1; i < position; ++i) ids.next();
        if (ids.next() == 0) return seed;
    }
}

using message_ids = packet_fixture;

TEST_F(message_ids, a_draw_is_a_rand_r_reduced_to_1_to_65533) {
    seed(4242);
    id_oracle expected(4242);
    for (int i = 0; i < 20000; ++i) ASSERT_EQ(expected.draw(), zeb::packet_draw_msg_id()) << i;
}

TEST_F(message_ids, an_identifier_has_its_high_byte_of_the_second_draw_and_its_low_byte_of_the_first) {
    seed(99);
    id_oracle draws(99);
    const uint16_t a = draws.draw();
    const uint16_t b = draws.draw();
    const uint16_t id = zeb::packet_new_msg_id();
    EXPECT_EQ(b >> 8, id >> 8);
    EXPECT_EQ(a & 0xFF, id & 0xFF);
}

TEST_F(message_ids, a_long_row_of_identifiers_follows_the_seed) {
    seed(7);
    id_oracle expected(7);
    for (int i = 0; i < 20000; ++i) ASSERT_EQ(expected.next(), zeb::packet_new_msg_id()) << i;
}

TEST_F(message_ids, a_seed_of_0_is_replaced_by_the_time_of_day) {
    clock.set_wall_ms(1712345678901);
    seed(0);
    id_oracle expected(1712345678);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(expected.next(), zeb::packet_new_msg_id());
}

TEST_F(message_ids, an_identifier_of_0_is_not_drawn_again) {
    seed(seed_with_zero_at(1));
    EXPECT_EQ(0, zeb::packet_new_msg_id());
}

TEST_F(message_ids, the_subscriber_that_draws_0_misses_the_message_and_nobody_else) {
    mqtt_client *publisher = join("publisher");
    mqtt_client *subscribers[3] = {join("a"), join("b"), join("c")};
    for (mqtt_client *s : subscribers) subscribe(s, "t", 1);
    for (int unlucky = 0; unlucky < 3; ++unlucky) {
        const uint32_t start = seed_with_zero_at(unlucky + 1);
        seed(start);
        id_oracle ids(start);
        log_capture log(zeb::AGENT_LOG_INFO);
        give(publisher, publish_packet("t", "hello", 1, 5));
        for (int i = 0; i < 3; ++i) {
            const uint16_t id = ids.next();
            const texts expected = i == unlucky ? texts() : dumped({publish_packet("t", "hello", 1, id)});
            EXPECT_EQ(expected, sent(subscribers[i])) << "the unlucky one is " << unlucky;
            if (i != unlucky) {
                EXPECT_EQ(id, subscribers[i]->last_qos1_msg_id.load());
            }
        }
        EXPECT_TRUE(log.has("ERROR",
                            "[PUBLISH ENCODE] Step 1 ERROR: QoS1/2 requires non-zero Packet ID "
                            "[MQTT 5.0 §3.3.2.2]\n"));
        EXPECT_TRUE(log.has("INFO", "MQTT标准：消息转发完成：匹配3个订阅者，成功发送2个"));
        EXPECT_EQ(just("40 02 00 05"), sent(publisher));
    }
}

TEST_F(message_ids, a_copy_at_qos_0_draws_none) {
    mqtt_client *publisher = join("publisher");
    mqtt_client *zero = join("zero");
    mqtt_client *one = join("one");
    subscribe(zero, "t", 0);
    subscribe(one, "t", 1);
    seed(31);
    give(publisher, publish_packet("t", "x", 1, 5));
    EXPECT_EQ(dumped({publish_packet("t", "x")}), sent(zero));
    EXPECT_EQ(dumped({publish_packet("t", "x", 1, id_oracle(31).next())}), sent(one));
}

}  // namespace

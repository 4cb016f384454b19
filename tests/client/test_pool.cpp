// Who may use a record for how long, and what its next owner finds.
#include "tests/client/client_fixture.h"

namespace {

using zeb::client_ref;
using zeb::g_client_mgr;
using zeb_test::client_test;
using zeb_test::mqtt_client;

class client_pool : public client_test {};

TEST_F(client_pool, a_released_record_is_closed_and_forgotten) {
    mqtt_client *const client = create(3, "c");
    give_will(client);
    const uint8_t ping[] = {0xD0, 0};
    ASSERT_EQ(zeb::client_send(client, ping, sizeof ping), 0);
    client->timed_out = 1;
    client->session_expiry_interval = 5;
    client->session_expiry_deadline = 6;
    client->will_delay_sec = 7;
    client->will_delay_deadline = 8;
    client->will_delay_pending = 1;

    zeb::client_pool_release(client);
    EXPECT_EQ(client->handle, zeb::NETIP_HANDLE_NONE);
    EXPECT_EQ(client->state, zeb::CLOSED);
    EXPECT_EQ(client->in_use, 0);
    EXPECT_EQ(client->timed_out, 0);
    EXPECT_STREQ(client->client_id, "");
    EXPECT_STREQ(client->ip, "");
    EXPECT_EQ(client->send_ring, nullptr);
    EXPECT_EQ(client->send_head, 0);
    EXPECT_EQ(client->send_tail, 0);
    EXPECT_EQ(client->will_topic, nullptr);
    EXPECT_EQ(client->will_payload, nullptr);
    EXPECT_EQ(client->will_msg_used, 0);
    EXPECT_EQ(client->will_done, 0);
    EXPECT_EQ(client->session_expiry_interval, 0u);
    EXPECT_EQ(client->session_expiry_deadline, 0u);
    EXPECT_EQ(client->will_delay_sec, 0u);
    EXPECT_EQ(client->will_delay_deadline, 0u);
    EXPECT_EQ(client->will_delay_pending, 0);
    EXPECT_EQ(g_client_mgr.blocks[0].used_map[0], 0);
    EXPECT_EQ(g_client_mgr.blocks[0].used, 0);
    EXPECT_EQ(used_records(), 0);
    EXPECT_EQ(zeb::client_find_by_handle(3), nullptr) << "the slot still points there";
    EXPECT_EQ(zeb::client_find_by_cid("c"), nullptr);
}

TEST_F(client_pool, releasing_twice_counts_once) {
    create(1);
    mqtt_client *const client = create(2);
    zeb::client_pool_release(client);
    zeb::client_pool_release(client);
    EXPECT_EQ(used_records(), 1);
    EXPECT_EQ(g_client_mgr.blocks[0].used, 1);
}

TEST_F(client_pool, only_records_of_the_pool_are_released) {
    create(1);
    auto *const stranger = static_cast<mqtt_client *>(calloc(1, sizeof(mqtt_client)));
    ASSERT_NE(stranger, nullptr);
    zeb::client_pool_release(stranger);
    zeb::client_pool_release(nullptr);
    free(stranger);
    EXPECT_EQ(used_records(), 1);
}

TEST_F(client_pool, a_held_record_is_handed_to_nobody_else) {
    mqtt_client *const client = create(1, "first");
    client_ref held = zeb::client_acquire_by_cid("first");
    ASSERT_EQ(held.get(), client);
    zeb::client_close(client);
    EXPECT_EQ(client->state, zeb::CLOSED);
    EXPECT_STREQ(client->client_id, "first") << "who still holds it may still read it";
    EXPECT_FALSE(zeb::client_acquire_by_cid("first")) << "nobody new may have it";

    EXPECT_NE(create(2), client);
    const uint8_t ping[] = {0xD0, 0};
    EXPECT_EQ(zeb::client_send(held.get(), ping, sizeof ping), -1);
    EXPECT_EQ(used_records(), 2);
    held.reset();
    EXPECT_EQ(used_records(), 1);
    EXPECT_EQ(create(3), client) << "the last holder gives it back";
}

TEST_F(client_pool, the_last_of_several_holders_gives_the_record_back) {
    mqtt_client *const client = create(1, "c");
    client_ref first = zeb::client_acquire_by_handle(1);
    client_ref second = zeb::client_acquire_by_cid("c");
    client_ref third(client);
    zeb::client_pool_release(client);
    client_ref moved = std::move(second);
    EXPECT_FALSE(second);
    first.reset();
    moved.reset();
    EXPECT_EQ(used_records(), 1);
    third = client_ref();
    EXPECT_EQ(used_records(), 0);
}

TEST_F(client_pool, a_lookup_that_fails_holds_nothing) {
    mqtt_client *const client = create(5, "Aa");
    EXPECT_FALSE(zeb::client_acquire_by_handle(11005));  // the same slot
    EXPECT_FALSE(zeb::client_acquire_by_cid("BB"));      // the same hash
    zeb::client_pool_release(client);
    EXPECT_EQ(used_records(), 0);
}

TEST_F(client_pool, a_generation_names_one_connection_for_ever) {
    mqtt_client *const client = create(1);
    const uint64_t generation = client->generation;
    EXPECT_TRUE(zeb::client_acquire_generation(client, generation));
    zeb::client_pool_release(client);
    EXPECT_FALSE(zeb::client_acquire_generation(client, generation));
    ASSERT_EQ(create(2), client);
    EXPECT_FALSE(zeb::client_acquire_generation(client, generation));
    EXPECT_NE(client->generation, generation);
    start(200);
    ASSERT_NE(create(1), nullptr);
    EXPECT_GT(g_client_mgr.blocks[0].records[0].generation, generation) << "a restart counts on";
}

// Writes over everything that a connection can leave in its record.
void soil(mqtt_client *client) {
    client->inbound_qos2_msg_id = 11;
    client->last_qos1_msg_id = 12;
    client->session_present = 1;
    client->clean_session = 1;
    client->disconnect_received = 1;
    client->codec.protocol_version = 5;
    client->timed_out = 1;
    client->keepalive = 13000;
    client->max_packet_size = 256;
    client->session_expiry_interval = 14;
    client->session_expiry_deadline = 15;
    client->subs_settled = 1;
    client->closing = 1;
    const uint8_t payload[] = {1, 2, 3};
    zeb::client_set_will_msg(client, "old/will", payload, sizeof payload, 2, 1);
    zeb::client_set_will_enhance(client, 16, 17, 1, "text", "answer", payload, sizeof payload);
    zeb::persist_session &session = client->session;
    snprintf(session.client_id, sizeof session.client_id, "previous");
    session.will_flag = 1;
    session.will_len = 9;
    session.session_expiry_interval = 18;
    session.sub_count = 2;
    session.msg_count = 3;
}

TEST_F(client_pool, a_record_that_is_used_again_starts_clean) {
    mqtt_client *const client = create(1, "previous");
    soil(client);
    zeb::client_pool_release(client);
    ASSERT_EQ(zeb::client_create(2, nullptr, 9, nullptr), client);

    EXPECT_STREQ(client->client_id, "");
    EXPECT_STREQ(client->ip, "");
    EXPECT_EQ(client->inbound_qos2_msg_id, 0);
    EXPECT_EQ(client->last_qos1_msg_id, 0);
    EXPECT_EQ(client->session_present, 0);
    EXPECT_EQ(client->clean_session, 0);
    EXPECT_EQ(client->disconnect_received, 0);
    EXPECT_EQ(client->codec.protocol_version, 4u);
    EXPECT_EQ(client->timed_out, 0);
    EXPECT_EQ(client->keepalive, 0u);
    EXPECT_EQ(client->max_packet_size, 4096u);
    EXPECT_EQ(client->session_expiry_interval, 0u);
    EXPECT_EQ(client->session_expiry_deadline, 0u);
    EXPECT_EQ(client->subs_settled, 0);
    EXPECT_EQ(client->closing, 0);
}

TEST_F(client_pool, a_record_that_is_used_again_has_neither_will_nor_session) {
    mqtt_client *const client = create(1, "previous");
    soil(client);
    zeb::client_pool_release(client);
    ASSERT_EQ(create(2), client);

    EXPECT_EQ(client->will_msg_used, 0);
    EXPECT_EQ(client->will_topic, nullptr);
    EXPECT_EQ(client->will_payload, nullptr);
    EXPECT_EQ(client->will_payload_len, 0u);
    EXPECT_EQ(client->will_qos, 0);
    EXPECT_EQ(client->will_retain, 0);
    EXPECT_EQ(client->will_done, 0);
    EXPECT_EQ(client->will_delay_sec, 0u);
    EXPECT_EQ(client->will_expiry_sec, 0u);
    EXPECT_EQ(client->will_payload_format, 0);
    EXPECT_STREQ(client->will_content_type, "");
    EXPECT_STREQ(client->will_response_topic, "");
    EXPECT_EQ(client->will_correlation_len, 0u);
    EXPECT_STREQ(client->session.client_id, "");
    EXPECT_EQ(client->session.will_flag, 0);
    EXPECT_EQ(client->session.will_len, 0u);
    EXPECT_EQ(client->session.session_expiry_interval, 0u);
    EXPECT_EQ(client->session.sub_count, 0);
    EXPECT_EQ(client->session.msg_count, 0);
}

}  // namespace

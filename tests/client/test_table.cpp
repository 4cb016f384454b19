// The tables: capacity, creation, identifiers, lookups and lists.
#include "tests/client/client_fixture.h"

namespace {

using zeb::g_client_mgr;
using zeb_test::client_test;
using zeb_test::eventually;
using zeb_test::log_capture;
using zeb_test::mqtt_client;
using zeb_test::numbered;

class client_table : public client_test {};

TEST_F(client_table, eleven_thousand_clients_take_110_blocks) {
    start(11000);
    EXPECT_EQ(g_client_mgr.block_count, 110);
    EXPECT_EQ(g_client_mgr.capacity, 11000);
    EXPECT_EQ(g_client_mgr.client_count, 0);
    EXPECT_EQ(g_client_mgr.initialized, 1);
    EXPECT_EQ(zeb::g_mqtt_max_clients, 11000);
    for (int i = 0; i < 110; ++i) EXPECT_EQ(g_client_mgr.blocks[i].capacity, 100);
}

TEST_F(client_table, capacities_outside_1_to_11000_are_refused) {
    for (const int capacity : {0, -1, 11001, 50000}) {
        log_capture log;
        EXPECT_EQ(zeb::client_mgr_init(capacity), -1);
        EXPECT_TRUE(log.has("ERROR", "max_clients " + std::to_string(capacity) + " invalid, must <= 11000"));
    }
    EXPECT_EQ(g_client_mgr.initialized, 1) << "a refused call changed the manager that is up";
    EXPECT_EQ(zeb::g_mqtt_max_clients, 200);
}

TEST_F(client_table, success_and_end_are_logged) {
    // A line that meets the send thread's own is lost, as the log says of itself.
    EXPECT_TRUE(eventually([] {
        log_capture log;
        EXPECT_EQ(zeb::client_mgr_init(7), 0);
        return log.has("INFO", "client_mgr_init success, dynamic max_clients = 7");
    }));
    log_capture log;
    zeb::client_mgr_deinit();
    EXPECT_TRUE(log.has("INFO", "Client manager deinit success (QoS module destroyed)"));
}

TEST_F(client_table, a_second_init_starts_over) {
    create(1, "a");
    EXPECT_EQ(zeb::client_mgr_init(50), 0);
    EXPECT_EQ(g_client_mgr.block_count, 1);
    EXPECT_EQ(used_records(), 0);
    EXPECT_EQ(zeb::client_find_by_handle(1), nullptr);
    EXPECT_EQ(zeb::client_find_by_cid("a"), nullptr);
}

TEST_F(client_table, deinit_twice_is_harmless) {
    create(1, "a");
    zeb::client_mgr_deinit();
    zeb::client_mgr_deinit();
    EXPECT_EQ(g_client_mgr.initialized, 0);
    EXPECT_EQ(g_client_mgr.block_count, 0);
    EXPECT_EQ(zeb::client_find_by_handle(1), nullptr);
    EXPECT_EQ(zeb::client_find_by_cid("a"), nullptr);
    EXPECT_EQ(zeb::client_get_connected_count(), 0);
}

TEST_F(client_table, without_a_manager_nobody_can_be_created) {
    zeb::client_mgr_deinit();
    EXPECT_EQ(create(1), nullptr);
    EXPECT_EQ(used_records(), 0);
}

TEST_F(client_table, the_151st_of_150_clients_is_refused) {
    start(150);
    EXPECT_EQ(g_client_mgr.block_count, 2);
    for (uint32_t i = 0; i < 150; ++i) ASSERT_NE(create(i), nullptr);
    log_capture log;
    EXPECT_EQ(create(150), nullptr);
    EXPECT_TRUE(log.has("ERROR", "Client pool full, max=150"));
    EXPECT_EQ(used_records(), 150);
}

TEST_F(client_table, records_come_from_the_first_block_with_room) {
    start(200);
    for (uint32_t i = 0; i < 101; ++i) ASSERT_NE(create(i), nullptr);
    EXPECT_EQ(g_client_mgr.blocks[0].used, 100);
    EXPECT_EQ(g_client_mgr.blocks[1].used, 1);
    mqtt_client *const third = zeb::client_find_by_handle(2);
    zeb::client_pool_release(third);
    EXPECT_EQ(create(500), third) << "the lowest free slot";
}

TEST_F(client_table, a_new_record_holds_what_it_was_created_with) {
    zeb::g_default_max_packet_size = 1234;
    auto *const broker = reinterpret_cast<mqtt_broker_instance *>(&clock);
    log_capture log;
    const mqtt_client *client = zeb::client_create(42, std::string(70, '1').c_str(), 65535, broker);
    zeb::g_default_max_packet_size = 4096;
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->handle, 42u);
    EXPECT_STREQ(client->client_id, "");
    EXPECT_STREQ(client->ip, std::string(63, '1').c_str());
    EXPECT_EQ(client->port, 65535);
    EXPECT_EQ(client->state, zeb::CONNECTED);
    EXPECT_EQ(client->in_use, 1);
    EXPECT_EQ(client->last_active, clock.mono_ms());
    EXPECT_EQ(client->connected_ms, clock.mono_ms());
    EXPECT_EQ(client->broker, broker);
    EXPECT_EQ(client->codec.protocol_version, 4u);
    EXPECT_EQ(client->max_packet_size, 1234u);
    EXPECT_EQ(client->send_ring, nullptr);
    EXPECT_TRUE(log.has("DEBUG", "[MQTT5] Client init max_packet_size = 1234 (default), client="));
    EXPECT_TRUE(log.has("DEBUG", "Create client: handle=42, ip=" + std::string(70, '1') + ":65535, total=1"));
}

TEST_F(client_table, a_later_handle_displaces_the_one_it_shares_a_slot_with) {
    create(5);
    mqtt_client *const second = create(11005);
    EXPECT_EQ(zeb::client_find_by_handle(5), nullptr);
    EXPECT_EQ(zeb::client_find_by_handle(11005), second);
}

TEST_F(client_table, a_handle_finds_only_its_own_live_record) {
    mqtt_client *const client = create(7);
    EXPECT_EQ(zeb::client_find_by_handle(7), client);
    EXPECT_EQ(zeb::client_find_by_handle(8), nullptr);
    EXPECT_EQ(zeb::client_find_by_handle(zeb::NETIP_HANDLE_NONE), nullptr);
    client->state = zeb::CLOSING;
    EXPECT_EQ(zeb::client_find_by_handle(7), client) << "a closing record is still found by its slot";
    client->state = zeb::CLOSED;
    EXPECT_EQ(zeb::client_find_by_handle(7), nullptr);
}

TEST_F(client_table, an_identifier_finds_only_its_own_live_record) {
    mqtt_client *const client = create(7, "abc");
    EXPECT_EQ(zeb::client_find_by_cid("abc"), client);
    EXPECT_EQ(zeb::client_find_by_cid("ABC"), nullptr);
    EXPECT_EQ(zeb::client_find_by_cid(""), nullptr);
    EXPECT_EQ(zeb::client_find_by_cid(nullptr), nullptr);
    client->in_use = 0;
    EXPECT_EQ(zeb::client_find_by_cid("abc"), nullptr);
    client->in_use = 1;
    client->state = zeb::CLOSED;
    EXPECT_EQ(zeb::client_find_by_cid("abc"), nullptr);
}

TEST_F(client_table, identifiers_with_one_slot_displace_each_other_and_are_told_apart) {
    // "Aa" and "BB" have the same hash, so the same slot as well.
    ASSERT_EQ(zeb::client_cid_hash("Aa"), zeb::client_cid_hash("BB"));
    mqtt_client *const first = create(1, "Aa");
    mqtt_client *const second = create(2, "BB");
    EXPECT_EQ(zeb::client_find_by_cid("Aa"), nullptr);
    EXPECT_EQ(zeb::client_find_by_cid("BB"), second);
    zeb::client_close(first);
    EXPECT_EQ(zeb::client_find_by_cid("BB"), second);
}

TEST_F(client_table, a_renamed_client_is_found_under_its_new_name_only) {
    mqtt_client *const client = create(1, "old");
    zeb::client_set_cid(client, "new");
    EXPECT_EQ(zeb::client_find_by_cid("old"), nullptr);
    EXPECT_EQ(zeb::client_find_by_cid("new"), client);
    mqtt_client *const other = create(2, "old");
    zeb::client_close(client);
    EXPECT_EQ(zeb::client_find_by_cid("old"), other);
}

TEST_F(client_table, the_hash_takes_bytes_as_signed) {
    EXPECT_EQ(zeb::client_cid_hash(""), 0u);
    EXPECT_EQ(zeb::client_cid_hash("a"), 97u);
    EXPECT_EQ(zeb::client_cid_hash("ab"), 97u * 31 + 98);
    EXPECT_EQ(zeb::client_cid_hash("\xFF"), 0xFFFFFFFFu);
    EXPECT_EQ(zeb::client_cid_hash("\x80z"), static_cast<uint32_t>(-128 * 31 + 'z'));
}

TEST_F(client_table, locks_are_chosen_by_handle_hundreds_and_by_hash) {
    EXPECT_EQ(&zeb::client_handle_lock(0), &g_client_mgr.locks[0]);
    EXPECT_EQ(&zeb::client_handle_lock(99), &g_client_mgr.locks[0]);
    EXPECT_EQ(&zeb::client_handle_lock(100), &g_client_mgr.locks[1]);
    EXPECT_EQ(&zeb::client_handle_lock(10999), &g_client_mgr.locks[109]);
    EXPECT_EQ(&zeb::client_handle_lock(11000), &g_client_mgr.locks[0]);
    EXPECT_EQ(&zeb::client_handle_lock(zeb::NETIP_HANDLE_NONE), &g_client_mgr.locks[0]);
    EXPECT_EQ(&zeb::client_cid_lock(110), &g_client_mgr.locks[110]);
    EXPECT_EQ(&zeb::client_cid_lock(111), &g_client_mgr.locks[0]);
}

TEST_F(client_table, an_identifier_keeps_63_characters) {
    mqtt_client *const client = create(1, std::string(64, 'x').c_str());
    EXPECT_STREQ(client->client_id, std::string(63, 'x').c_str());
    EXPECT_EQ(zeb::client_find_by_cid(std::string(63, 'x').c_str()), client);
    EXPECT_EQ(zeb::client_find_by_cid(std::string(64, 'x').c_str()), nullptr);
}

TEST_F(client_table, naming_is_logged_and_ignored_for_nobody_and_for_closed_records) {
    mqtt_client *const client = create(9);
    log_capture log;
    zeb::client_set_cid(nullptr, "x");
    client->state = zeb::CLOSED;
    zeb::client_set_cid(client, "x");
    EXPECT_STREQ(client->client_id, "");
    client->state = zeb::CONNECTED;
    zeb::client_set_cid(client, "y");
    EXPECT_TRUE(log.has("DEBUG", "Set client ID: handle=9, cid=y"));
    EXPECT_EQ(log.text().find("cid=x"), std::string::npos);
}

TEST_F(client_table, an_empty_identifier_becomes_auto_and_the_time) {
    const std::string expected = "auto_" + std::to_string(clock.wall_sec());
    mqtt_client *const client = create(1);
    log_capture log;
    zeb::client_set_cid(client, "");
    EXPECT_STREQ(client->client_id, expected.c_str());
    EXPECT_EQ(zeb::client_find_by_cid(expected.c_str()), client);
    EXPECT_TRUE(log.has("INFO", "[MQTT标准] 空ClientID，Broker自动生成: " + expected));
}

TEST_F(client_table, clients_without_identifiers_in_one_second_get_different_ones) {
    clock.advance_ms(1000000);  // past every number that this process has given out
    std::vector<std::string> names;
    for (uint32_t i = 0; i < 20; ++i) {
        mqtt_client *const client = create(i);
        zeb::client_set_cid(client, nullptr);
        names.push_back(client->client_id);
        EXPECT_EQ(names.back(), "auto_" + std::to_string(clock.wall_sec() + i));
    }
    for (uint32_t i = 0; i < 20; ++i) EXPECT_EQ(zeb::client_find_by_cid(names[i].c_str())->handle, i);
}

TEST_F(client_table, a_generated_identifier_skips_one_that_a_client_chose_itself) {
    clock.advance_ms(2000000);
    mqtt_client *const chosen = create(1, ("auto_" + std::to_string(clock.wall_sec())).c_str());
    mqtt_client *const client = create(2);
    zeb::client_set_cid(client, "");
    EXPECT_STREQ(client->client_id, ("auto_" + std::to_string(clock.wall_sec() + 1)).c_str());
    EXPECT_EQ(zeb::client_find_by_cid(chosen->client_id), chosen);
}

TEST_F(client_table, a_generated_identifier_skips_a_live_client_that_lost_its_slot) {
    clock.advance_ms(3000000);
    mqtt_client *const first = create(1);
    zeb::client_set_cid(first, "");
    const uint32_t slot = zeb::client_cid_hash(first->client_id) % zeb::CLIENT_MAX;
    g_client_mgr.by_cid[slot] = nullptr;  // as a client with the same slot leaves it behind
    mqtt_client *const second = create(2);
    zeb::client_set_cid(second, "");
    EXPECT_STRNE(first->client_id, second->client_id);
}

TEST_F(client_table, activity_is_stamped_unless_the_record_is_closed) {
    mqtt_client *const client = create(1);
    client->timed_out = 1;
    clock.advance_ms(5);
    zeb::client_update_active(client);
    EXPECT_EQ(client->last_active, clock.mono_ms());
    EXPECT_EQ(client->timed_out, 0);
    client->state = zeb::CLOSED;
    client->timed_out = 1;
    clock.advance_ms(5);
    zeb::client_update_active(client);
    EXPECT_EQ(client->last_active, clock.mono_ms() - 5);
    EXPECT_EQ(client->timed_out, 1);
    zeb::client_update_active(nullptr);
}

TEST_F(client_table, connected_and_logged_in_clients_count_as_online) {
    create(1);
    create(2, "b");
    create(3, "c")->state = zeb::CLOSING;
    create(4, "d")->state = zeb::CLOSED;
    EXPECT_EQ(zeb::client_get_connected_count(), 2);
}

TEST_F(client_table, the_list_names_who_is_online_and_has_a_name) {
    create(1, "a");
    create(2);
    create(3, "gone")->state = zeb::CLOSING;
    create(4, "bc");
    char buf[64];
    EXPECT_EQ(zeb::client_fill_id_list(buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "a,bc");
}

TEST_F(client_table, the_list_is_cut_where_the_buffer_ends) {
    create(1, "ab");
    create(2, "cde");
    create(3, "f");
    constexpr struct {
        int size;
        const char *text;
    } k_cuts[] = {{1, ""},       {2, "a"},       {3, "ab"},       {4, "ab,"},       {5, "ab,c"},
                  {7, "ab,cde"}, {8, "ab,cde,"}, {9, "ab,cde,f"}, {10, "ab,cde,f"}, {64, "ab,cde,f"}};
    for (const auto &cut : k_cuts) {
        char buf[65];
        memset(buf, '#', sizeof buf);
        EXPECT_EQ(zeb::client_fill_id_list(buf, cut.size), static_cast<int>(strlen(cut.text))) << cut.size;
        EXPECT_STREQ(buf, cut.text);
        EXPECT_EQ(buf[cut.size], '#') << "a byte beyond the buffer";
    }
}

TEST_F(client_table, the_list_refuses_no_buffer_and_no_room) {
    char buf[4] = "xyz";
    EXPECT_EQ(zeb::client_fill_id_list(nullptr, 10), -1);
    EXPECT_EQ(zeb::client_fill_id_list(buf, 0), -1);
    EXPECT_EQ(zeb::client_fill_id_list(buf, -1), -1);
    EXPECT_STREQ(buf, "xyz");
    zeb::client_mgr_deinit();
    EXPECT_EQ(zeb::client_fill_id_list(buf, sizeof buf), 0) << "no blocks, no names";
    EXPECT_STREQ(buf, "");
}

}  // namespace

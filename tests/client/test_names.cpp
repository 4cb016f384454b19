// The exact index of identifiers, with the option that asks it switched on.
#include "tests/client/client_fixture.h"

namespace {

using zeb_test::client_test;
using zeb_test::mqtt_client;
using zeb_test::numbered;

class client_names : public client_test {
  protected:
    void SetUp() override {
        client_test::SetUp();
        zeb::g_client_options.exact_lookup = 1;
    }
    void TearDown() override {
        zeb::g_client_options.exact_lookup = 0;
        client_test::TearDown();
    }
};

// Two texts of one hash: 'A' * 31 + 'a' equals 'B' * 31 + 'B'.
constexpr char k_twin_1[] = "Aa";
constexpr char k_twin_2[] = "BB";

TEST_F(client_names, identifiers_of_one_hash_are_told_apart) {
    ASSERT_EQ(zeb::client_cid_hash(k_twin_1), zeb::client_cid_hash(k_twin_2));
    mqtt_client *const first = create(1, k_twin_1);
    mqtt_client *const second = create(2, k_twin_2);
    EXPECT_EQ(zeb::client_find_by_cid(k_twin_1), first);
    EXPECT_EQ(zeb::client_find_by_cid(k_twin_2), second);
    zeb::g_client_options.exact_lookup = 0;
    EXPECT_EQ(zeb::client_find_by_cid(k_twin_1), nullptr) << "by the table, the later one hides the earlier";
}

TEST_F(client_names, every_client_of_a_crowded_slot_is_found_until_it_ends) {
    std::vector<std::string> ids;
    for (int n = 0; ids.size() < 50; ++n) {
        const std::string id = numbered("c", n);
        if (zeb::client_cid_hash(id.c_str()) % 11000 < 30) ids.push_back(id);
    }
    std::vector<mqtt_client *> clients;
    for (size_t i = 0; i < ids.size(); ++i)
        clients.push_back(create(static_cast<uint32_t>(i), ids[i].c_str()));
    for (size_t i = 0; i < ids.size(); ++i) EXPECT_EQ(zeb::client_find_by_cid(ids[i].c_str()), clients[i]);
    for (size_t i = 0; i < ids.size(); i += 2) zeb::client_close(clients[i]);
    for (size_t i = 0; i < ids.size(); ++i)
        EXPECT_EQ(zeb::client_find_by_cid(ids[i].c_str()), i % 2 == 0 ? nullptr : clients[i]) << ids[i];
}

TEST_F(client_names, the_newest_of_one_name_is_found_and_then_the_next_newest) {
    mqtt_client *const oldest = create(1, "same");
    mqtt_client *const middle = create(2, "same");
    mqtt_client *const newest = create(3, "same");
    EXPECT_EQ(zeb::client_find_by_cid("same"), newest);
    zeb::client_close(middle);
    EXPECT_EQ(zeb::client_find_by_cid("same"), newest);
    zeb::client_close(newest);
    EXPECT_EQ(zeb::client_find_by_cid("same"), oldest);
    zeb::client_close(oldest);
    EXPECT_EQ(zeb::client_find_by_cid("same"), nullptr);
}

TEST_F(client_names, a_renamed_client_is_found_by_its_new_name_alone) {
    mqtt_client *const other = create(1, "before");
    mqtt_client *const client = create(2, "before");
    zeb::client_set_cid(client, "after");
    EXPECT_EQ(zeb::client_find_by_cid("after"), client);
    EXPECT_EQ(zeb::client_find_by_cid("before"), other);
    zeb::client_set_cid(client, "after");
    zeb::client_close(client);
    EXPECT_EQ(zeb::client_find_by_cid("after"), nullptr);
}

TEST_F(client_names, a_client_that_waits_for_its_will_is_not_found) {
    mqtt_client *const older = create(1, "dying");
    mqtt_client *const client = create(2, "dying");
    give_will(client, "t", 60);
    zeb::client_close(client);
    ASSERT_EQ(client->state, zeb::CLOSING);
    EXPECT_EQ(zeb::client_find_by_cid("dying"), older);
    zeb::client_set_cid(client, "dying");  // a CONNECT that met the close
    EXPECT_EQ(zeb::client_find_by_cid("dying"), older);
}

TEST_F(client_names, a_record_named_again_after_its_end_leaves_the_index_with_its_release) {
    mqtt_client *const client = create(1, "late");
    {
        const zeb::client_ref hold(client);
        give_will(client, "t", 60);
        zeb::client_close(client);
        zeb::client_set_cid(client, "late");
        zeb::client_pool_release(client);
    }
    ASSERT_EQ(used_records(), 0);
    mqtt_client *const next = create(2, "next");
    ASSERT_EQ(next, client) << "the record serves the next connection";
    EXPECT_EQ(zeb::client_find_by_cid("late"), nullptr);
    EXPECT_EQ(zeb::client_find_by_cid("next"), next);
    zeb::client_close(next);
    EXPECT_EQ(zeb::client_find_by_cid("next"), nullptr);
}

TEST_F(client_names, a_new_manager_knows_nobody) {
    create(1, "left");
    start(10);
    EXPECT_EQ(zeb::client_find_by_cid("left"), nullptr);
    mqtt_client *const client = create(1, "left");
    EXPECT_EQ(zeb::client_find_by_cid("left"), client);
}

TEST_F(client_names, the_index_is_kept_while_nobody_asks_it) {
    zeb::g_client_options.exact_lookup = 0;
    mqtt_client *const client = create(1, k_twin_1);
    create(2, k_twin_2);
    zeb::g_client_options.exact_lookup = 1;
    EXPECT_EQ(zeb::client_find_by_cid(k_twin_1), client);
}

}  // namespace

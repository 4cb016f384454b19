// Shared subscriptions: who of a group gets a publication.
#include <memory>

#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;
using zeb::mqtt_subscription;
using selection = std::vector<uint8_t>;

bool group_of(const std::string &filter, std::string *rest, std::string *name) {
    if (filter.compare(0, 7, "$share/") != 0) return false;
    *rest = filter.substr(7);
    const size_t slash = rest->find('/');
    if (slash == std::string::npos) return false;
    *name = rest->substr(0, slash);
    return true;
}

// The rule word for word: each group name in order of appearance, its pool gathered by a walk over all.
selection choose_slowly(const texts &filters, uint32_t *counter) {
    selection chosen(filters.size(), 0);
    texts seen;
    std::string rest;
    std::string name;
    for (const std::string &filter : filters) {
        if (!group_of(filter, &rest, &name) || name.size() > 255) continue;
        bool known = false;
        for (const std::string &s : seen) known = known || s == name;
        if (known) continue;
        seen.push_back(name);
        std::vector<size_t> pool;
        for (size_t i = 0; i < filters.size(); ++i) {
            std::string other;
            if (group_of(filters[i], &rest, &other) && rest.compare(0, name.size(), name) == 0)
                pool.push_back(i);
        }
        chosen[pool[(*counter)++ % pool.size()]] = 1;
    }
    return chosen;
}

class shared_selection : public testing::Test {
  protected:
    shared_selection() { zeb::g_rr_counter.store(0); }

    selection choose(const texts &filters) {
        selection chosen(filters.size() + 1, 0);
        chosen.back() = 0xA5;
        for (size_t i = 0; i < filters.size(); ++i)
            snprintf(entries_[i].topic_filter, sizeof entries_[i].topic_filter, "%s", filters[i].c_str());
        zeb::shared_sub_mark_selected(entries_.get(), static_cast<int>(filters.size()), chosen.data());
        EXPECT_EQ(0xA5, chosen.back());
        chosen.pop_back();
        return chosen;
    }
    static constexpr size_t k_room = 1200;
    std::unique_ptr<mqtt_subscription[]> entries_ = std::make_unique<mqtt_subscription[]>(k_room);
};

TEST_F(shared_selection, members_take_turns) {
    const texts filters{"$share/g/t", "$share/g/t", "$share/g/t"};
    EXPECT_EQ(selection({1, 0, 0}), choose(filters));
    EXPECT_EQ(selection({0, 1, 0}), choose(filters));
    EXPECT_EQ(selection({0, 0, 1}), choose(filters));
    EXPECT_EQ(selection({1, 0, 0}), choose(filters));
}

TEST_F(shared_selection, one_counter_turns_for_all_groups) {
    const texts filters{"$share/g/t", "$share/h/t", "$share/g/t", "$share/h/t"};
    EXPECT_EQ(selection({1, 0, 0, 1}), choose(filters));
    EXPECT_EQ(selection({1, 0, 0, 1}), choose(filters));
    EXPECT_EQ(4, zeb::g_rr_counter.load());
}

TEST_F(shared_selection, plain_filters_are_never_chosen_and_turn_no_counter) {
    EXPECT_EQ(selection({0, 0, 0}), choose({"t", "#", "$shared/g/t"}));
    EXPECT_EQ(0, zeb::g_rr_counter.load());
}

TEST_F(shared_selection, a_filter_without_a_slash_behind_its_group_is_in_no_group) {
    EXPECT_EQ(selection({0, 1}), choose({"$share/g", "$share/g/t"}));
    EXPECT_EQ(selection({0}), choose({"$share/"}));
    EXPECT_EQ(1, zeb::g_rr_counter.load());
}

TEST_F(shared_selection, members_of_ab_are_candidates_of_a_as_well) {
    const texts filters{"$share/a/t", "$share/ab/t", "$share/ab/t"};
    EXPECT_EQ(selection({1, 0, 1}), choose(filters));  // "a": position 0 of 3; "ab": 1 of 2
    zeb::g_rr_counter.store(1);
    EXPECT_EQ(selection({0, 1, 0}), choose(filters));  // both groups choose the same member
    zeb::g_rr_counter.store(2);
    EXPECT_EQ(selection({0, 0, 1}), choose(filters));  // group "a" serves none of its own
    zeb::g_rr_counter.store(4);
    EXPECT_EQ(selection({0, 1, 1}), choose(filters));  // two of "ab", none of "a"
}

TEST_F(shared_selection, members_with_different_filters_form_one_pool) {
    zeb::g_rr_counter.store(1);
    EXPECT_EQ(selection({0, 1}), choose({"$share/g/t", "$share/g/#"}));
}

TEST_F(shared_selection, an_empty_group_name_has_everybody_in_its_pool) {
    zeb::g_rr_counter.store(2);
    EXPECT_EQ(selection({0, 1, 1}), choose({"$share//t", "$share/x/t", "$share/y/t"}));
    EXPECT_EQ(5, zeb::g_rr_counter.load());
}

TEST_F(shared_selection, a_group_name_of_255_bytes_counts_and_one_of_256_does_not) {
    const std::string longest(255, 'n');
    EXPECT_EQ(selection({1, 0}), choose({"$share/" + longest + "/t", "$share/" + longest + "n/t"}));
    EXPECT_EQ(1, zeb::g_rr_counter.load());
    EXPECT_EQ(selection({0, 1}), choose({"$share/" + longest + "/t", "$share/" + longest + "n/t"}));
}

TEST_F(shared_selection, the_counter_may_pass_its_largest_value) {
    const texts filters{"$share/g/t", "$share/g/t", "$share/g/t"};
    zeb::g_rr_counter.store(INT32_MAX);
    EXPECT_EQ(selection({0, 1, 0}), choose(filters));  // 2147483647 mod 3
    EXPECT_EQ(INT32_MIN, zeb::g_rr_counter.load());
    EXPECT_EQ(selection({0, 0, 1}), choose(filters));  // 2147483648 mod 3
}

TEST_F(shared_selection, nothing_is_chosen_from_nothing) {
    uint8_t untouched = 7;
    zeb::shared_sub_mark_selected(nullptr, 1, &untouched);
    zeb::shared_sub_mark_selected(entries_.get(), 0, &untouched);
    zeb::shared_sub_mark_selected(entries_.get(), 1, nullptr);
    EXPECT_EQ(7, untouched);
}

TEST_F(shared_selection, twenty_thousand_random_lists_are_chosen_like_the_slow_rule) {
    unsigned state = 5;
    const auto random = [&state](unsigned n) { return static_cast<unsigned>(rand_r(&state)) % n; };
    const texts k_names{"",  "a",  "b",  "ab",    "aba", "abb", "a b", "\xC3\xA4",           "zz",
                        "z", "b!", "b0", "b\x7F", "A",   "a-",  "a.",  std::string(256, 'q')};
    const texts k_tails{"/t", "/#", "/a/b", "", "/", "/+"};
    uint32_t counter = 0;
    for (int round = 0; round < 20000; ++round) {
        if (round % 1000 == 0) {
            counter = random(2) == 0 ? INT32_MAX - 20 : static_cast<uint32_t>(round);
            zeb::g_rr_counter.store(static_cast<int32_t>(counter));
        }
        texts filters(random(16) + 1);
        for (std::string &f : filters) {
            const std::string shared = "$share/" + k_names[random(static_cast<unsigned>(k_names.size()))] +
                                       k_tails[random(static_cast<unsigned>(k_tails.size()))];
            f = random(5) == 0 ? "plain/t" : shared;
        }
        const selection expected = choose_slowly(filters, &counter);
        ASSERT_EQ(expected, choose(filters)) << "round " << round;
        ASSERT_EQ(counter, static_cast<uint32_t>(zeb::g_rr_counter.load())) << "round " << round;
    }
}

TEST_F(shared_selection, a_thousand_groups_are_chosen_like_the_slow_rule) {
    texts filters;
    for (int i = 0; i < 1200; ++i) filters.push_back("$share/g" + std::to_string(i * 7919 % 1000) + "/t");
    uint32_t counter = 0;
    EXPECT_EQ(choose_slowly(filters, &counter), choose(filters));
    EXPECT_EQ(1000, zeb::g_rr_counter.load());
}

class shared_delivery : public packet_fixture {
  protected:
    // Who gets one publication on "t".
    std::string receivers(mqtt_client *publisher, const std::vector<mqtt_client *> &members) {
        give(publisher, publish_packet("t", "x"));
        std::string out;
        for (mqtt_client *m : members) out += std::to_string(sent(m).size());
        return out;
    }
};

TEST_F(shared_delivery, three_members_rotate_and_a_plain_subscriber_gets_everything) {
    mqtt_client *publisher = join("publisher");
    const std::vector<mqtt_client *> all{join("m1"), join("m2"), join("m3"), join("plain")};
    for (int i = 0; i < 3; ++i) subscribe(all[static_cast<size_t>(i)], "$share/g/t", 0);
    subscribe(all[3], "t", 0);
    EXPECT_EQ("1001", receivers(publisher, all));
    EXPECT_EQ("0101", receivers(publisher, all));
    log_capture log;
    EXPECT_EQ("0011", receivers(publisher, all));
    EXPECT_TRUE(log.has("DEBUG", "[共享订阅] 订阅者1 同组已负载均衡，跳过发送"));
    EXPECT_TRUE(log.has("DEBUG", "[共享订阅] 订阅者2 同组已负载均衡，跳过发送"));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：消息转发完成：匹配4个订阅者，成功发送2个"));
}

TEST_F(shared_delivery, groups_a_and_ab_share_candidates) {
    mqtt_client *publisher = join("publisher");
    const std::vector<mqtt_client *> all{join("of_a"), join("of_ab1"), join("of_ab2")};
    subscribe(all[0], "$share/a/t", 0);
    subscribe(all[1], "$share/ab/t", 0);
    subscribe(all[2], "$share/ab/t", 0);
    EXPECT_EQ("101", receivers(publisher, all));
    zeb::g_rr_counter.store(4);
    EXPECT_EQ("011", receivers(publisher, all));
}

TEST_F(shared_delivery, a_group_that_chose_the_publisher_gets_nothing) {
    mqtt_client *publisher = join("publisher");
    mqtt_client *member = join("member");
    subscribe(publisher, "$share/g/t", 0);
    subscribe(member, "$share/g/t", 0);
    EXPECT_EQ("00", receivers(publisher, {publisher, member}));
    EXPECT_EQ("01", receivers(publisher, {publisher, member}));
}

TEST_F(shared_delivery, a_group_that_chose_an_absent_member_gets_nothing) {
    mqtt_client *publisher = join("publisher");
    mqtt_client *member = join("member");
    EXPECT_EQ(0, zeb::sub_add("absent", "$share/g/t", 0, 0));
    subscribe(member, "$share/g/t", 0);
    EXPECT_EQ("0", receivers(publisher, {member}));
    EXPECT_EQ("1", receivers(publisher, {member}));
}

TEST_F(shared_delivery, a_shared_filter_without_topic_is_never_served) {
    mqtt_client *publisher = join("publisher");
    mqtt_client *member = join("member");
    subscribe(member, "$share/g", 0);
    give(publisher, publish_packet("$share/g", "x"));
    EXPECT_EQ(texts(), sent(member));
}

}  // namespace

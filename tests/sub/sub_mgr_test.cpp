#include "sub/sub_mgr.h"

#include <algorithm>
#include <string>

#include "sub/cid_hash.h"
#include "tests/sub/numbered.h"
#include "tests/sub/sub_fixture.h"

namespace {

using zeb::g_sub_mgr;
using zeb::mqtt_subscription;
using zeb::sub_add;
using zeb::sub_add_with_id;
using zeb::sub_match_routes;
using zeb::SUB_MAX;
using zeb::sub_remove;
using zeb::sub_route_list;
using zeb_test::lines;
using zeb_test::log_capture;
using zeb_test::numbered;

class sub_mgr : public zeb_test::sub_fixture {};

TEST_F(sub_mgr, init_and_deinit_announce_themselves) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    ASSERT_EQ(zeb::sub_init(), 0);
    zeb::sub_deinit();
    EXPECT_TRUE(log.has("INFO", "订阅管理器初始化成功（符合MQTT 3.1.1标准，版本=1.0.0）"));
    EXPECT_TRUE(log.has("INFO", "订阅管理器销毁成功"));
    EXPECT_EQ(g_sub_mgr.subs, nullptr);
    EXPECT_EQ(g_sub_mgr.retains, nullptr);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 0);
    EXPECT_EQ(g_sub_mgr.retain_count.load(), 0);
}

TEST_F(sub_mgr, a_new_entry_holds_what_was_subscribed) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(sub_add("c1", "$share/g/a/+", 2, 1), 0);
    ASSERT_EQ(g_sub_mgr.sub_count.load(), 1);
    EXPECT_EQ(entry(0), "c1 $share/g/a/+");
    EXPECT_EQ(g_sub_mgr.subs[0].qos, 2u);
    EXPECT_EQ(g_sub_mgr.subs[0].clean_session, 1);
    EXPECT_EQ(g_sub_mgr.subs[0].subscription_identifier, 0u);
    EXPECT_TRUE(
        log.has("INFO", "MQTT标准：新增订阅：ClientID=c1, Topic=$share/g/a/+, QoS=2, CleanSession=1"));
}

TEST_F(sub_mgr, subscribing_again_overwrites_the_entry) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(sub_add_with_id("c1", "a", 0, 1, 7), 0);
    EXPECT_EQ(sub_add("c1", "a", 2, 0), 0);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 1);
    EXPECT_EQ(g_sub_mgr.subs[0].qos, 2u);
    EXPECT_EQ(g_sub_mgr.subs[0].clean_session, 0);
    EXPECT_EQ(g_sub_mgr.subs[0].subscription_identifier, 7u) << "the identifier stays";
    EXPECT_TRUE(log.has("INFO", "MQTT标准：更新订阅：ClientID=c1, Topic=a, QoS=2"));
}

TEST_F(sub_mgr, the_same_filter_of_another_client_is_another_entry) {
    EXPECT_EQ(sub_add("c1", "a", 0, 1), 0);
    EXPECT_EQ(sub_add("c2", "a", 0, 1), 0);
    EXPECT_EQ(sub_add("c1", "A", 0, 1), 0);
    EXPECT_EQ(table(), (lines{"c1 a", "c2 a", "c1 A"}));
}

TEST_F(sub_mgr, bad_arguments_are_refused_with_their_line) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(sub_add(nullptr, "a", 0, 0), -1);
    EXPECT_EQ(sub_add("", "a", 0, 0), -1);
    EXPECT_EQ(sub_add("c", nullptr, 0, 0), -1);
    EXPECT_EQ(sub_add("c", "a", 3, 0), -1);
    EXPECT_EQ(sub_add("c", "a/+/#", 0, 0), -1);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 0);
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_add：无效的订阅参数（client_id=(null), topic_filter=a）"));
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_add：无效的订阅参数（client_id=, topic_filter=a）"));
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_add：无效的订阅参数（client_id=c, topic_filter=(null)）"));
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_add：无效的QoS=3（仅支持0/1/2）"));
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_add：非法过滤器拒绝订阅（client_id=c, filter=a/+/#）"));
}

TEST_F(sub_mgr, an_identifier_is_stored_and_overwritten_silently) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(sub_add_with_id("c", "a", 1, 1, 7), 0);
    EXPECT_EQ(sub_add_with_id("c", "a", 2, 0, 8), 0);
    EXPECT_EQ(sub_add_with_id("", "a", 0, 0, 9), 0) << "an empty client is taken here";
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 2);
    EXPECT_EQ(g_sub_mgr.subs[0].qos, 2u);
    EXPECT_EQ(g_sub_mgr.subs[0].subscription_identifier, 8u);
}

TEST_F(sub_mgr, with_identifier_bad_arguments_are_refused) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(sub_add_with_id(nullptr, "a", 0, 0, 1), -1);
    EXPECT_EQ(sub_add_with_id("c", nullptr, 0, 0, 1), -1);
    EXPECT_EQ(sub_add_with_id("c", "a", 3, 0, 1), -1);
    EXPECT_EQ(sub_add_with_id("c", "a#", 0, 0, 1), -1);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 0);
    const std::string &text = log.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << "only the bad filter is reported";
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_add_with_id：非法过滤器拒绝订阅（client_id=c, filter=a#）"));
}

TEST_F(sub_mgr, with_identifier_zero_it_is_a_plain_subscription) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(sub_add_with_id("", "a", 0, 0, 0), -1);
    EXPECT_EQ(sub_add_with_id("c", "a", 0, 0, 0), 0);
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_add：无效的订阅参数（client_id=, topic_filter=a）"));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：新增订阅：ClientID=c, Topic=a, QoS=0, CleanSession=0"));
}

TEST_F(sub_mgr, an_entry_is_found_by_its_identifier) {
    mqtt_subscription out{};
    EXPECT_EQ(zeb::sub_find_by_identifier(7, &out), -1);
    ASSERT_EQ(sub_add("c0", "a", 0, 0), 0);
    ASSERT_EQ(sub_add_with_id("c1", "b", 1, 0, 7), 0);
    ASSERT_EQ(sub_add_with_id("c2", "c", 1, 0, 7), 0);
    EXPECT_EQ(zeb::sub_find_by_identifier(7, &out), 0);
    EXPECT_STREQ(out.client_id, "c1") << "the first one in table order";
    EXPECT_EQ(zeb::sub_find_by_identifier(0, &out), -1);
    EXPECT_EQ(zeb::sub_find_by_identifier(7, nullptr), -1);
    EXPECT_EQ(zeb::sub_find_by_identifier(8, &out), -1);
}

TEST_F(sub_mgr, texts_are_cut_to_their_fields) {
    const std::string client(70, 'c');
    const std::string filter(2060, 'f');
    EXPECT_EQ(sub_add(client.c_str(), filter.c_str(), 0, 0), 0);
    EXPECT_EQ(g_sub_mgr.subs[0].client_id, client.substr(0, 64));
    EXPECT_EQ(g_sub_mgr.subs[0].topic_filter, filter.substr(0, 2048));
    EXPECT_EQ(sub_add(client.c_str(), filter.c_str(), 0, 0), 0) << "the whole text equals no stored one";
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 2);
    EXPECT_EQ(sub_add(client.substr(0, 64).c_str(), filter.substr(0, 2048).c_str(), 2, 0), 0);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 2);
    EXPECT_EQ(g_sub_mgr.subs[0].qos, 2u) << "the first of two equal entries is updated";
    EXPECT_EQ(g_sub_mgr.subs[1].qos, 0u);
    EXPECT_EQ(sub_remove(client.c_str(), nullptr), 0);
    EXPECT_EQ(sub_remove(client.substr(0, 64).c_str(), filter.substr(0, 2048).c_str()), 2);
}

TEST_F(sub_mgr, a_full_table_refuses_new_pairs_only) {
    for (int i = 0; i < SUB_MAX; ++i)
        ASSERT_EQ(sub_add(numbered("c", i % 100).c_str(), numbered("t/", i).c_str(), 0, 0), 0);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(sub_add("c0", "one/more", 0, 0), -4);
    EXPECT_EQ(sub_add_with_id("c0", "one/more", 0, 0, 5), -4);
    EXPECT_EQ(sub_add("c99", "t/9999", 1, 0), 0);
    EXPECT_EQ(sub_add_with_id("c0", "t/0", 2, 0, 5), 0);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), SUB_MAX);
    EXPECT_EQ(g_sub_mgr.subs[9999].qos, 1u);
    EXPECT_EQ(g_sub_mgr.subs[0].subscription_identifier, 5u);
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_add：订阅数量超限（当前=10000, 最大=10000）"));
    EXPECT_TRUE(log.has("ERROR", "订阅数量超限（max=10000）"));
    const std::string &text = log.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << "two refusal lines and the update";

    listen(zeb::AGENT_LOG_FATAL);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c7"), 100);
    EXPECT_EQ(sub_remove("c7", nullptr), 100);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 9900);
    EXPECT_EQ(sub_add("c0", "one/more", 0, 0), 0);
    EXPECT_EQ(entry(9900), "c0 one/more");
    EXPECT_EQ(matched("one/more"), (lines{"c0 one/more"}));
    EXPECT_EQ(matched("t/8"), (lines{"c8 t/8"}));
    EXPECT_EQ(matched("t/7"), lines{});
}

TEST_F(sub_mgr, removing_a_client_keeps_the_order_of_the_others) {
    for (const char *filter : {"a", "b", "c"})
        for (const char *client : {"x", "y", "z"}) ASSERT_EQ(sub_add(client, filter, 1, 0), 0);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(sub_remove("y", nullptr), 3);
    EXPECT_EQ(table(), (lines{"x a", "z a", "x b", "z b", "x c", "z c"}));
    EXPECT_EQ(sub_remove("x", "b"), 1);
    EXPECT_EQ(table(), (lines{"x a", "z a", "z b", "x c", "z c"}));
    EXPECT_EQ(sub_remove("x", "b"), 0);
    EXPECT_EQ(sub_remove("nobody", nullptr), 0);
    EXPECT_TRUE(log.has("INFO", "MQTT标准：移除订阅：ClientID=y, Topic=所有, 移除数量=3"));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：移除订阅：ClientID=x, Topic=b, 移除数量=1"));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：移除订阅：ClientID=x, Topic=b, 移除数量=0"));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：移除订阅：ClientID=nobody, Topic=所有, 移除数量=0"));
}

TEST_F(sub_mgr, a_moved_entry_keeps_all_its_values) {
    const std::string longer(500, 'l');
    ASSERT_EQ(sub_add("gone", longer.c_str(), 0, 0), 0);
    ASSERT_EQ(sub_add_with_id("stays", "a/b", 2, 1, 77), 0);
    ASSERT_EQ(sub_remove("gone", nullptr), 1);
    EXPECT_EQ(entry(0), "stays a/b");
    EXPECT_EQ(g_sub_mgr.subs[0].qos, 2u);
    EXPECT_EQ(g_sub_mgr.subs[0].clean_session, 1);
    EXPECT_EQ(g_sub_mgr.subs[0].subscription_identifier, 77u);
    EXPECT_EQ(matched("a/b"), (lines{"stays a/b"}));
}

TEST_F(sub_mgr, removing_without_a_client_is_refused) {
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(sub_remove(nullptr, "a"), -1);
    EXPECT_EQ(sub_remove("", nullptr), -1);
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_remove：无效的ClientID（空指针/空字符串）"));
}

TEST_F(sub_mgr, the_subscriptions_of_a_client_are_counted) {
    ASSERT_EQ(sub_add("c1", "a", 0, 0), 0);
    ASSERT_EQ(sub_add("c1", "b", 0, 0), 0);
    ASSERT_EQ(sub_add("c2", "a", 0, 0), 0);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c1"), 2);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c3"), 0);
    EXPECT_EQ(zeb::sub_get_client_sub_count(nullptr), -1);
    EXPECT_EQ(zeb::sub_get_client_sub_count(""), -1);
    EXPECT_TRUE(log.has("INFO", "sub_get_client_sub_count：ClientID=c1, 订阅数量=2"));
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] sub_get_client_sub_count：无效的ClientID（空指针/空字符串）"));
}

TEST_F(sub_mgr, identifiers_with_one_hash_are_told_apart) {
    ASSERT_EQ(zeb::cid_hash("Aa"), zeb::cid_hash("BB"));
    ASSERT_EQ(sub_add("Aa", "t", 0, 0), 0);
    ASSERT_EQ(sub_add("BB", "t", 1, 0), 0);
    EXPECT_EQ(zeb::sub_get_client_sub_count("Aa"), 1);
    EXPECT_EQ(sub_remove("BB", nullptr), 1);
    EXPECT_EQ(table(), (lines{"Aa t"}));
}

TEST_F(sub_mgr, initialising_again_starts_empty) {
    ASSERT_EQ(sub_add("c1", "a", 0, 0), 0);
    ASSERT_EQ(zeb::sub_init(), 0);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 0);
    EXPECT_EQ(matched("a"), lines{});
    EXPECT_EQ(sub_remove("c1", nullptr), 0);
    ASSERT_EQ(sub_add("c2", "a", 0, 0), 0);
    EXPECT_EQ(matched("a"), (lines{"c2 a"}));
}

TEST_F(sub_mgr, without_a_table_nothing_is_found_and_nothing_taken) {
    zeb::sub_deinit();
    zeb::sub_deinit();
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(sub_add("c", "a", 0, 0), -4);
    EXPECT_EQ(sub_add_with_id("c", "a", 0, 0, 1), -4);
    EXPECT_EQ(sub_remove("c", nullptr), 0);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c"), 0);
    EXPECT_EQ(matched("a"), lines{});
    sub_route_list list;
    EXPECT_EQ(sub_match_routes("a", &list, 10), 0);
    mqtt_subscription out{};
    EXPECT_EQ(zeb::sub_find_by_identifier(1, &out), -1);
    EXPECT_TRUE(log.has("ERROR", "[SUB] no subscription table: ClientID=c, Topic=a refused"));
}

}  // namespace

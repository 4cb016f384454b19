#include <algorithm>
#include <cstdio>
#include <string>

#include "tests/sub/numbered.h"
#include "tests/sub/sub_fixture.h"

namespace {

using zeb::mqtt_subscription;
using zeb::sub_add;
using zeb::sub_match;
using zeb::sub_match_routes;
using zeb::SUB_MAX;
using zeb::sub_remove;
using zeb::sub_route_list;
using zeb_test::lines;
using zeb_test::log_capture;
using zeb_test::numbered;

class sub_matching : public zeb_test::sub_fixture {};

TEST_F(sub_matching, ten_thousand_receivers_of_one_topic_are_all_found_in_order) {
    for (int i = 0; i < SUB_MAX; ++i) ASSERT_EQ(sub_add(numbered("c", i).c_str(), "t/+", 1, 0), 0);
    sub_route_list routes;
    ASSERT_EQ(sub_match_routes("t/x", &routes, 11000), SUB_MAX);
    for (int i = 0; i < SUB_MAX; ++i) ASSERT_EQ(routes.routes[i].client_id, numbered("c", i));
    ASSERT_EQ(sub_match_routes("t/x", &routes, 9999), 9999);
    EXPECT_STREQ(routes.routes[9998].client_id, "c9998");
}

TEST_F(sub_matching, matching_copies_entries_in_table_order_and_stops_at_the_limit) {
    ASSERT_EQ(sub_add("c1", "#", 0, 0), 0);
    ASSERT_EQ(sub_add("c2", "a/+", 1, 1), 0);
    ASSERT_EQ(sub_add("c3", "b", 1, 1), 0);
    ASSERT_EQ(sub_add("c1", "$share/g/a/b", 2, 0), 0);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(matched("a/b"), (lines{"c1 #", "c2 a/+", "c1 $share/g/a/b"}));
    EXPECT_EQ(matched("a/b", 1), (lines{"c1 #"}));
    EXPECT_EQ(matched("a/b", 2), (lines{"c1 #", "c2 a/+"}));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：Topic=a/b 匹配到 3 个订阅者"));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：Topic=a/b 匹配到 1 个订阅者"));

    mqtt_subscription result{};
    ASSERT_EQ(sub_match("b", &result, 1), 1);
    ASSERT_EQ(zeb::sub_remove("c1", "#"), 1);
    ASSERT_EQ(sub_match("b", &result, 1), 1);
    EXPECT_STREQ(result.client_id, "c3");
    EXPECT_EQ(result.qos, 1u);
    EXPECT_EQ(result.clean_session, 1);
}

TEST_F(sub_matching, matching_without_arguments_finds_nothing) {
    ASSERT_EQ(sub_add("c1", "#", 0, 0), 0);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    mqtt_subscription result{};
    EXPECT_EQ(sub_match(nullptr, &result, 1), 0);
    EXPECT_EQ(sub_match("a", nullptr, 1), 0);
    EXPECT_EQ(sub_match("a", &result, 0), 0);
    EXPECT_EQ(sub_match_routes("a", nullptr, 1), 0);
    char line[200];
    snprintf(line, sizeof line, "[DEBUG] sub_match：入参无效（topic=(nil), matched=%p, max_matched=1）",
             static_cast<void *>(&result));
    EXPECT_TRUE(log.has("ERROR", line));
    const std::string &text = log.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
}

TEST_F(sub_matching, a_route_carries_what_routing_needs) {
    ASSERT_EQ(sub_add("c1", "a/+", 2, 0), 0);
    ASSERT_EQ(sub_add("\xC3\xA9", "$share/g/a/b", 1, 0), 0);
    ASSERT_EQ(sub_add("c1", "a/+", 1, 0), 0);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    sub_route_list list;
    ASSERT_EQ(sub_match_routes("a/b", &list, 11000), 2);
    EXPECT_EQ(list.count, 2);
    EXPECT_STREQ(list.routes[0].client_id, "c1");
    EXPECT_EQ(list.routes[0].qos, 1) << "an update reaches the routes";
    EXPECT_FALSE(list.routes[0].shared);
    EXPECT_STREQ(list.routes[0].filter, "");
    EXPECT_EQ(list.routes[0].cid_hash, 99u * 31 + 49);
    EXPECT_STREQ(list.routes[1].client_id, "\xC3\xA9");
    EXPECT_EQ(list.routes[1].qos, 1);
    EXPECT_TRUE(list.routes[1].shared);
    EXPECT_STREQ(list.routes[1].filter, "$share/g/a/b");
    EXPECT_EQ(list.routes[1].cid_hash, static_cast<uint32_t>(-61 * 31 - 87)) << "bytes count as signed";
    EXPECT_TRUE(log.has("INFO", "MQTT标准：Topic=a/b 匹配到 2 个订阅者"));
}

TEST_F(sub_matching, filters_of_plain_routes_come_on_request) {
    ASSERT_EQ(sub_add("c1", "a/+", 2, 0), 0);
    ASSERT_EQ(sub_add("c2", "a/b", 2, 0), 0);
    sub_route_list list;
    list.all_filters = true;
    ASSERT_EQ(sub_match_routes("a/b", &list, 11000), 2);
    EXPECT_STREQ(list.routes[0].filter, "a/+");
    EXPECT_STREQ(list.routes[1].filter, "a/b");
    ASSERT_EQ(sub_match_routes("a/b", &list, 1), 1);
    EXPECT_EQ(list.count, 1);
    ASSERT_EQ(sub_match_routes("z", &list, 1), 0);
    EXPECT_EQ(list.count, 0);
}

TEST_F(sub_matching, at_debug_level_each_entry_is_reported) {
    ASSERT_EQ(sub_add("c1", "a/+", 0, 0), 0);
    ASSERT_EQ(sub_add("c2", "x", 0, 0), 0);
    log_capture &log = listen(zeb::AGENT_LOG_DEBUG);
    EXPECT_EQ(matched("a/b"), (lines{"c1 a/+"}));
    EXPECT_TRUE(log.has("DEBUG", "[DEBUG] topic_match_wildcard：匹配结果（filter=a/+, topic=a/b, match=1）"));
    EXPECT_TRUE(log.has("DEBUG", "[DEBUG] topic_match_wildcard：匹配结果（filter=x, topic=a/b, match=0）"));
}

TEST_F(sub_matching, a_shared_filter_without_a_topic_never_matches_and_says_so) {
    ASSERT_EQ(sub_add("c1", "$share/g/", 0, 0), 0);
    log_capture &log = listen(zeb::AGENT_LOG_ERROR);
    EXPECT_EQ(matched("a/b"), lines{});
    EXPECT_EQ(matched(""), lines{});
    EXPECT_TRUE(log.has("ERROR", "[DEBUG] mqtt_filter_is_valid：空过滤器非法"));
}

}  // namespace

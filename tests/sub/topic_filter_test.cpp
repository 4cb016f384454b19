#include "sub/topic_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/support/log_capture.h"

namespace {

using zeb::mqtt_filter_is_valid;
using zeb::topic_match_wildcard;
using zeb_test::log_capture;

struct refusal {
    const char *filter;
    const char *line;
};

constexpr refusal k_refused[] = {
    {nullptr, "[DEBUG] mqtt_filter_is_valid：空过滤器非法"},
    {"", "[DEBUG] mqtt_filter_is_valid：空过滤器非法"},
    {"a/#/b", "[DEBUG] mqtt_filter_is_valid：#必须是最后一个字符（filter=a/#/b, #位置=2）"},
    {"##", "[DEBUG] mqtt_filter_is_valid：#必须是最后一个字符（filter=##, #位置=0）"},
    {"#/", "[DEBUG] mqtt_filter_is_valid：#必须是最后一个字符（filter=#/, #位置=0）"},
    {"a#", "[DEBUG] mqtt_filter_is_valid：#前必须是/（filter=a#, #位置=1）"},
    {"a/b#", "[DEBUG] mqtt_filter_is_valid：#前必须是/（filter=a/b#, #位置=3）"},
    {"+#", "[DEBUG] mqtt_filter_is_valid：#前必须是/（filter=+#, #位置=1）"},
    {"a/b+", "[DEBUG] mqtt_filter_is_valid：+必须单独占一个层级（filter=a/b+, +位置=3）"},
    {"+a", "[DEBUG] mqtt_filter_is_valid：+必须单独占一个层级（filter=+a, +位置=0）"},
    {"a/+b/c", "[DEBUG] mqtt_filter_is_valid：+必须单独占一个层级（filter=a/+b/c, +位置=2）"},
    {"++", "[DEBUG] mqtt_filter_is_valid：+必须单独占一个层级（filter=++, +位置=0）"},
    {"+/++", "[DEBUG] mqtt_filter_is_valid：+必须单独占一个层级（filter=+/++, +位置=2）"},
    {"a+/#", "[DEBUG] mqtt_filter_is_valid：+必须单独占一个层级（filter=a+/#, +位置=1）"},
    {"a/+/#", "[DEBUG] mqtt_filter_is_valid：#前不能有+（filter=a/+/#）"},
    {"+/#", "[DEBUG] mqtt_filter_is_valid：#前不能有+（filter=+/#）"},
    {"+/a/#", "[DEBUG] mqtt_filter_is_valid：#前不能有+（filter=+/a/#）"},
};

TEST(topic_filter, refused_filters_say_why_at_error_level) {
    for (const refusal &row : k_refused) {
        log_capture log;
        EXPECT_EQ(mqtt_filter_is_valid(row.filter), 0) << row.line;
        EXPECT_TRUE(log.has("ERROR", row.line)) << row.line << "\ngot: " << log.text();
    }
}

TEST(topic_filter, a_refusal_is_one_line) {
    log_capture log;
    EXPECT_EQ(mqtt_filter_is_valid("a#/+b#"), 0);
    const std::string &text = log.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST(topic_filter, accepted_filters_are_silent) {
    log_capture log;
    for (const char *filter :
         {"+",  "a/+", "+/b", "#",     "a/#",    "a/b/#",      "/#",        "/",  "//", "a//b",
          "/a", "a/",  "+/+", "a/+/b", "$SYS/x", "$share/g/+", "$share/g/", "+/", "/+", "a b/\xE4\xB8\xAD"})
        EXPECT_EQ(mqtt_filter_is_valid(filter), 1) << filter;
    EXPECT_EQ(log.text(), "");
}

struct match_row {
    const char *filter;
    const char *topic;
    int match;
};

constexpr match_row k_matches[] = {
    {"#", "", 1},
    {"#", "a", 1},
    {"#", "$SYS/x", 1},
    {"#", "/", 1},
    {"a/#", "a", 1},
    {"a/#", "a/", 1},
    {"a/#", "a/b/c", 1},
    {"a/#", "ab", 0},
    {"a/#", "", 0},
    {"/#", "", 1},
    {"/#", "/", 1},
    {"/#", "/a/b", 1},
    {"/#", "a", 0},
    {"a//#", "a/", 1},
    {"a//#", "a", 0},
    {"+", "abc", 1},
    {"+", "", 1},
    {"+", "/", 1},
    {"+", "a/", 1},
    {"+", "a/b", 0},
    {"+", "//", 0},
    {"+/b", "x/b", 1},
    {"+/b", "/b", 1},
    {"+/b", "", 0},
    {"+/b", "x", 0},
    {"+/x", "$SYS/x", 1},
    {"+/", "a/", 1},
    {"+/", "a", 0},
    {"+/", "/", 1},
    {"+/+", "a/", 0},
    {"+/+", "a//", 1},
    {"a/+", "a/b", 1},
    {"a/+", "a/b/", 1},
    {"a/+", "a//", 1},
    {"a/+", "a/b/c", 0},
    {"a/+", "a/", 0},
    {"a/+", "a", 0},
    {"a/+/c", "a/b/c", 1},
    {"a/+/c", "a//c", 1},
    {"a/+/c", "a/b/d", 0},
    {"a", "a", 1},
    {"a", "A", 0},
    {"a", "a/", 0},
    {"a/", "a", 0},
    {"a", "", 0},
    {"+", "+", 1},
    {"a/+", "a/#", 1},
    {"a/b", "a/+", 0},
    {"a/+/#", "a/b/c", 0},
    {"+/#", "a/b", 0},
    {"$share/grp/s/+", "s/1", 1},
    {"$share/grp/s/+", "$share/grp/s/1", 0},
    {"$share/grp", "$share/grp", 1},
    {"$share/grp", "grp", 0},
    {"$share/g/+", "", 1},
    {"$share/g/", "", 0},
    {"$share/g/", "a", 0},
    {"$share//a", "a", 1},
    {"$share/g/$share/h/a", "$share/h/a", 1},
    {"$share/g/$share/h/a", "a", 0},
    {"$SHARE/g/a", "a", 0},
};

TEST(topic_filter, matches_as_documented) {
    log_capture log(zeb::AGENT_LOG_FATAL);
    for (const match_row &row : k_matches)
        EXPECT_EQ(topic_match_wildcard(row.filter, row.topic), row.match)
            << row.filter << " <- " << row.topic;
}

TEST(topic_filter, null_arguments_do_not_match) {
    EXPECT_EQ(topic_match_wildcard(nullptr, "a"), 0);
    EXPECT_EQ(topic_match_wildcard("a", nullptr), 0);
}

TEST(topic_filter, a_decision_is_logged_with_the_effective_filter) {
    log_capture log;
    EXPECT_EQ(topic_match_wildcard("$share/g/a/b", "a/b"), 1);
    EXPECT_EQ(topic_match_wildcard("x", "y"), 0);
    EXPECT_TRUE(log.has("DEBUG", "[DEBUG] topic_match_wildcard：匹配结果（filter=a/b, topic=a/b, match=1）"));
    EXPECT_TRUE(log.has("DEBUG", "[DEBUG] topic_match_wildcard：匹配结果（filter=x, topic=y, match=0）"));
}

TEST(topic_filter, a_topic_that_goes_on_behind_the_filter_is_logged) {
    log_capture log;
    EXPECT_EQ(topic_match_wildcard("a", "a/b"), 0);
    EXPECT_TRUE(log.has("DEBUG", "[DEBUG] topic_match_wildcard：未完全匹配（filter剩余=, topic剩余=/b）"));
}

TEST(topic_filter, the_parent_level_of_a_hash_is_logged) {
    log_capture log;
    EXPECT_EQ(topic_match_wildcard("a/#", "a"), 1);
    EXPECT_TRUE(log.has("DEBUG", "[TRACE] topic_match_wildcard：filter剩余/#且topic结束，判定匹配"));
}

TEST(topic_filter, decisions_are_silent_below_debug) {
    log_capture log(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(topic_match_wildcard("a/#", "a"), 1);
    EXPECT_EQ(topic_match_wildcard("a", "a/b"), 0);
    EXPECT_EQ(log.text(), "");
}

TEST(topic_filter, the_part_behind_the_group_is_effective) {
    EXPECT_STREQ(zeb::topic_filter_effective("$share/g1/a/b"), "a/b");
    EXPECT_STREQ(zeb::topic_filter_effective("$share/g1"), "$share/g1");
    EXPECT_STREQ(zeb::topic_filter_effective("$share/g1/"), "");
    EXPECT_STREQ(zeb::topic_filter_effective("a/b"), "a/b");
    EXPECT_TRUE(zeb::topic_filter_is_shared("$share/g1"));
    EXPECT_FALSE(zeb::topic_filter_is_shared("$share"));
}

}  // namespace

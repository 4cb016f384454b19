// Holds what the index finds against a walk over the table with topic_match_wildcard.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "sub/sub_index.h"
#include "sub/sub_mgr.h"
#include "sub/text_hash.h"
#include "sub/topic_filter.h"
#include "tests/sub/numbered.h"
#include "tests/support/log_capture.h"

namespace {

using zeb::g_sub_mgr;
using zeb::mqtt_subscription;
using zeb::SUB_MAX;
using zeb_test::log_capture;
using zeb_test::numbered;

struct found {
    std::string client_id;
    std::string filter;
    uint32_t qos;
    bool operator==(const found &) const = default;
};

std::ostream &operator<<(std::ostream &out, const found &f) {
    return out << f.client_id << " \"" << f.filter << "\" " << f.qos;
}

std::vector<found> linear(const char *topic, int max_matched) {
    std::vector<found> out;
    for (int i = 0; i < g_sub_mgr.sub_count.load(); ++i) {
        const mqtt_subscription &sub = g_sub_mgr.subs[i];
        if (zeb::topic_match_wildcard(sub.topic_filter, topic) == 0) continue;
        out.push_back({sub.client_id, sub.topic_filter, sub.qos});
        if (static_cast<int>(out.size()) == max_matched) break;
    }
    return out;
}

class sub_index : public testing::Test {
  protected:
    void SetUp() override {
        quiet_ = std::make_unique<log_capture>(zeb::AGENT_LOG_FATAL);
        ASSERT_EQ(zeb::sub_init(), 0);
        list_.all_filters = true;
        results_.resize(SUB_MAX);
    }
    void TearDown() override { zeb::sub_deinit(); }

    std::vector<found> matched(const char *topic, int max_matched) {
        const int n = zeb::sub_match(topic, results_.data(), max_matched);
        std::vector<found> out;
        for (int i = 0; i < n; ++i) {
            const mqtt_subscription &sub = results_[static_cast<size_t>(i)];
            out.push_back({sub.client_id, sub.topic_filter, sub.qos});
        }
        return out;
    }

    std::vector<found> routed(const char *topic, int max_matched) {
        const int n = zeb::sub_match_routes(topic, &list_, max_matched);
        std::vector<found> out;
        for (int i = 0; i < n; ++i)
            out.push_back({list_.routes[i].client_id, list_.routes[i].filter, list_.routes[i].qos});
        return out;
    }

    void expect_same(const std::string &topic, int max_matched = SUB_MAX) {
        const std::vector<found> expected = linear(topic.c_str(), max_matched);
        ASSERT_EQ(routed(topic.c_str(), max_matched), expected) << "topic \"" << topic << '"';
        // Whole entries are large: they are compared for a part of the topics.
        if (expected.size() > 50 && rng_() % 64 != 0) return;
        ASSERT_EQ(matched(topic.c_str(), max_matched), expected) << "topic \"" << topic << '"';
    }

    std::string random_text(const std::vector<std::string> &pieces, size_t longest) {
        std::string out;
        for (size_t n = rng_() % (longest + 1); n > 0; --n) out += pieces[rng_() % pieces.size()];
        return out;
    }

    std::mt19937 rng_{20240229};

  private:
    std::unique_ptr<log_capture> quiet_;
    zeb::sub_route_list list_;
    std::vector<mqtt_subscription> results_;
};

// All texts over the alphabet with up to `longest` characters.
std::vector<std::string> all_texts(const char *alphabet, size_t longest) {
    std::vector<std::string> out{""};
    for (size_t i = 0; i < out.size() && out[i].size() < longest; ++i)
        for (const char *c = alphabet; *c != '\0'; ++c) out.push_back(out[i] + *c);
    return out;
}

TEST_F(sub_index, every_short_filter_finds_every_short_topic) {
    int added = 0;
    for (const std::string &filter : all_texts("a/+#", 6))
        if (zeb::sub_add("c", filter.c_str(), 0, 0) == 0) ++added;
    ASSERT_GT(added, 100);
    for (const std::string &topic : all_texts("a/+#", 5)) expect_same(topic);
}

TEST_F(sub_index, random_shared_and_plain_filters_find_random_topics) {
    const std::vector<std::string> pieces{"a", "b", "/", "/", "+", "#", "$share/"};
    for (int round = 0; round < 4; ++round) {
        ASSERT_EQ(zeb::sub_init(), 0);
        while (g_sub_mgr.sub_count.load() < 200) {
            std::string filter = random_text(pieces, 8);
            if (rng_() % 4 == 0) filter = "$share/g/" + filter;
            (void)zeb::sub_add("c", filter.c_str(), rng_() % 3, 0);
        }
        for (int i = 0; i < 300; ++i) expect_same(random_text(pieces, 7));
    }
}

TEST_F(sub_index, deep_filters_find_deep_topics) {
    const std::vector<std::string> levels{"a", "a", "a", "+", "", "b"};
    for (int i = 0; i < 2000; ++i) {
        std::string filter;
        for (size_t n = 12 + rng_() % 10; n > 0; --n) filter += levels[rng_() % 4] + "/";
        filter += rng_() % 3 == 0 ? "#" : "+";
        (void)zeb::sub_add("c", filter.c_str(), 0, 0);
    }
    ASSERT_GT(g_sub_mgr.sub_count.load(), 500);
    for (int i = 0; i < 300; ++i) {
        std::string topic;
        for (size_t n = 12 + rng_() % 12; n > 0; --n) topic += levels[rng_() % 3] + "/";
        if (rng_() % 2 == 0) topic += "a";
        expect_same(topic);
    }
}

TEST_F(sub_index, filters_of_a_thousand_levels_fit_and_match) {
    std::string topic(2047, '/');
    for (size_t i = 0; i < topic.size(); i += 2) topic[i] = 'a';
    for (int i = 0; i < 200; ++i) {
        std::string filter = topic;
        filter[static_cast<size_t>(2 * i)] = '+';
        ASSERT_EQ(zeb::sub_add("c", filter.c_str(), 0, 0), 0);
    }
    expect_same(topic);
    EXPECT_EQ(matched(topic.c_str(), SUB_MAX).size(), 200u);
}

TEST_F(sub_index, random_changes_keep_it_in_step_with_the_table) {
    const std::vector<std::string> filters{"a",     "a/b",   "a/+",        "+",          "+/b",        "#",
                                           "a/#",   "/#",    "$share/g/a", "$share/h/a", "$share/g/+", "a/",
                                           "a/b/+", "+/+/+", "$share/g/",  "$share/g",   "b",          "b/#"};
    const std::vector<std::string> topics{"", "a", "a/", "a/b", "a/b/", "/", "b/x/y", "$share/g", "a/b/c/d"};
    std::vector<std::string> model;  // "client filter" in table order
    for (int step = 0; step < 20000; ++step) {
        const std::string client = numbered("c", static_cast<int>(rng_() % 12));
        const std::string &filter = filters[rng_() % filters.size()];
        const std::string pair = client + " " + filter;
        const auto at = std::find(model.begin(), model.end(), pair);
        switch (rng_() % 8) {
            case 0:
                ASSERT_EQ(zeb::sub_remove(client.c_str(), filter.c_str()), at != model.end() ? 1 : 0);
                if (at != model.end()) model.erase(at);
                break;
            case 1: {
                const size_t before = model.size();
                std::erase_if(model, [&](const std::string &p) { return p.starts_with(client + " "); });
                ASSERT_EQ(zeb::sub_get_client_sub_count(client.c_str()),
                          static_cast<int>(before - model.size()));
                ASSERT_EQ(zeb::sub_remove(client.c_str(), nullptr), static_cast<int>(before - model.size()));
                break;
            }
            default:
                ASSERT_EQ(zeb::sub_add(client.c_str(), filter.c_str(), rng_() % 3, 0), 0);
                if (at == model.end()) model.push_back(pair);
        }
        ASSERT_EQ(g_sub_mgr.sub_count.load(), static_cast<int>(model.size()));
        ASSERT_TRUE(zeb::sub_index_is_current(g_sub_mgr.index, g_sub_mgr.subs, g_sub_mgr.sub_count.load()))
            << "it is told of every change, so that it need not be built again";
        if (step % 16 != 0) continue;
        for (size_t i = 0; i < model.size(); ++i)
            ASSERT_EQ(std::string(g_sub_mgr.subs[i].client_id) + " " + g_sub_mgr.subs[i].topic_filter,
                      model[i]);
        expect_same(topics[rng_() % topics.size()], 1 + static_cast<int>(rng_() % 40));
    }
}

// Takes every place of the index and gives it back, several times over: no two filters share a node.
TEST_F(sub_index, a_full_table_can_be_emptied_and_filled_again) {
    for (int round = 0; round < 3; ++round) {
        const int first = round * SUB_MAX;
        for (int i = 0; i < SUB_MAX; ++i) {
            const std::string filter =
                std::to_string(first + i) + "/2/3/" + (i % 2 == 0 ? "4" : "+") + "/5/6/7/8/9/10/11/12/13";
            ASSERT_EQ(zeb::sub_add(numbered("c", i % 10).c_str(), filter.c_str(), 0, 0), 0);
        }
        const std::string levels = "/2/3/4/5/6/7/8/9/10/11/12/13";
        const std::string topics[] = {std::to_string(first + 1) + levels,
                                      std::to_string(first + SUB_MAX - 1) + levels};
        for (const std::string &topic : topics) ASSERT_EQ(matched(topic.c_str(), 10).size(), 1u) << topic;
        for (int c = 0; c < 10; ++c)
            ASSERT_EQ(zeb::sub_remove(numbered("c", c).c_str(), nullptr), SUB_MAX / 10);
        ASSERT_EQ(g_sub_mgr.sub_count.load(), 0);
        for (const std::string &topic : topics) ASSERT_EQ(matched(topic.c_str(), 10).size(), 0u) << topic;
    }
}

TEST_F(sub_index, texts_with_one_hash_are_told_apart) {
    const std::string a = zeb_test::k_twins[0];
    const std::string b = zeb_test::k_twins[1];
    ASSERT_EQ(zeb::text_hash(a.c_str()), zeb::text_hash(b.c_str()));
    for (const std::string &client : {a, b})
        for (const std::string &filter : {a, b, a + "/x", b + "/x", a + "/#", b + "/#"})
            ASSERT_EQ(zeb::sub_add(client.c_str(), filter.c_str(), 0, 0), 0);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 12);
    for (const std::string &topic : {a, b, a + "/x", b + "/x"}) {
        expect_same(topic);
        EXPECT_EQ(matched(topic.c_str(), SUB_MAX).size(), 4u) << topic;
    }
    EXPECT_EQ(zeb::sub_remove(b.c_str(), a.c_str()), 1);
    EXPECT_EQ(zeb::sub_remove(b.c_str(), nullptr), 5);
    for (const std::string &topic : {a, b, a + "/x", b + "/x"}) expect_same(topic);
}

TEST_F(sub_index, entries_stored_into_the_table_directly_are_found) {
    ASSERT_EQ(zeb::sub_add("c0", "old", 0, 0), 0);
    for (const char *filter : {"new", "$share/g/new", "n#", "#/new", "", "new"}) {
        const int pos = g_sub_mgr.sub_count.load();
        snprintf(g_sub_mgr.subs[pos].client_id, sizeof g_sub_mgr.subs[pos].client_id, "d%d", pos);
        snprintf(g_sub_mgr.subs[pos].topic_filter, sizeof g_sub_mgr.subs[pos].topic_filter, "%s", filter);
        g_sub_mgr.sub_count.store(pos + 1);
    }
    expect_same("new");
    EXPECT_EQ(matched("new", 10).size(), 3u);
    EXPECT_EQ(zeb::sub_remove("d1", nullptr), 1);
    EXPECT_EQ(zeb::sub_get_client_sub_count("d2"), 1);
    expect_same("new");

    g_sub_mgr.sub_count.store(0);
    EXPECT_EQ(matched("new", 10).size(), 0u);
    EXPECT_EQ(zeb::sub_add("c0", "old", 0, 0), 0);
    EXPECT_EQ(g_sub_mgr.sub_count.load(), 1);
    expect_same("old");
}

}  // namespace

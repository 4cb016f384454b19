#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "sub/sub_mgr.h"
#include "tests/support/log_capture.h"

namespace zeb_test {

using lines = std::vector<std::string>;

// An empty table. Entries are compared as "client filter".
class sub_fixture : public testing::Test {
  protected:
    void SetUp() override {
        quiet_ = std::make_unique<log_capture>(zeb::AGENT_LOG_FATAL);
        ASSERT_EQ(zeb::sub_init(), 0);
    }
    void TearDown() override { zeb::sub_deinit(); }

    // Log lines are captured by one object at a time.
    log_capture &listen(uint32_t level) {
        quiet_.reset();
        quiet_ = std::make_unique<log_capture>(level);
        return *quiet_;
    }

    static std::string text_of(const zeb::mqtt_subscription &sub) {
        return std::string(sub.client_id) + " " + sub.topic_filter;
    }
    static std::string entry(int pos) { return text_of(zeb::g_sub_mgr.subs[pos]); }
    static lines table() {
        lines out;
        for (int i = 0; i < zeb::g_sub_mgr.sub_count.load(); ++i) out.push_back(entry(i));
        return out;
    }
    static lines matched(const char *topic, int max_matched = 100) {
        std::vector<zeb::mqtt_subscription> results(static_cast<size_t>(max_matched));
        const int n = zeb::sub_match(topic, results.data(), max_matched);
        lines out;
        for (int i = 0; i < n; ++i) out.push_back(text_of(results[static_cast<size_t>(i)]));
        return out;
    }

  private:
    std::unique_ptr<log_capture> quiet_;
};

}  // namespace zeb_test

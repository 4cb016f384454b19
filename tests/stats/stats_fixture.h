#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <new>

#include "client/client_mgr.h"
#include "log/platform_memory.h"
#include "stats/mqtt_stats.h"
#include "sub/sub_mgr.h"
#include "tests/support/fake_clock.h"

namespace zeb_test {

// Statistics begin at zero, beside a client manager and a subscription manager that hold what a test says.
class stats_fixture : public testing::Test {
  protected:
    stats_fixture() : block_(std::make_unique<zeb::client_pool_block>()) {
        block_->records = static_cast<zeb::mqtt_client *>(zeb::platform_zero_alloc(k_records_bytes));
        block_->capacity = zeb::CLIENT_POOL_SIZE;
        for (int i = 0; i < k_records; ++i) new (&record(i).state) std::atomic<uint32_t>(zeb::CLOSED);
        zeb::g_client_mgr.blocks = block_.get();
        zeb::g_client_mgr.block_count.store(1);
        set_pool(0, 0);
        set_subscriptions(0, 0);
        zeb::mqtt_stats_init();
    }
    ~stats_fixture() override {
        zeb::g_client_mgr.block_count.store(0);
        zeb::g_client_mgr.blocks = nullptr;
        set_pool(0, 0);
        set_subscriptions(0, 0);
        zeb::platform_zero_free(block_->records, k_records_bytes);
    }

    static void set_pool(int used, int capacity) {
        zeb::g_client_mgr.client_count.store(used);
        zeb::g_client_mgr.capacity.store(capacity);
    }
    static void set_subscriptions(int subs, int retained) {
        zeb::g_sub_mgr.sub_count.store(subs);
        zeb::g_sub_mgr.retain_count.store(retained);
    }
    // The first `count` records of the pool serve clients that are online, the others none.
    void set_online(int count) {
        block_->used.store(count);
        for (int i = 0; i < k_records; ++i) {
            block_->used_map[i].store(i < count ? 1 : 0);
            record(i).state.store(i < count ? zeb::LOGINED : zeb::CLOSED);
        }
    }

    fake_clock clock;

  private:
    static constexpr int k_records = 5;
    static constexpr size_t k_records_bytes = sizeof(zeb::mqtt_client) * zeb::CLIENT_POOL_SIZE;
    zeb::mqtt_client &record(int i) { return block_->records[i]; }

    std::unique_ptr<zeb::client_pool_block> block_;
};

}  // namespace zeb_test

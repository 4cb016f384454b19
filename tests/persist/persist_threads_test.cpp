#include <fcntl.h>
#include <sys/syscall.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>
#include <vector>

#include "persist/fair_mutex.h"
#include "tests/persist/persist_fixture.h"

// Stands in for the system's own: makes the time long in which a file is neither the old nor the new one.
extern "C" int rename(const char *from, const char *to) noexcept {
    std::this_thread::sleep_for(std::chrono::microseconds(300));
    return static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

namespace {

namespace fs = std::filesystem;
using zeb_test::add_offline;
using zeb_test::loaded;
using zeb_test::new_record;
using zeb_test::push_sub;

class persist_threads : public zeb_test::persist_fixture {
  protected:
    void SetUp() override {
        persist_fixture::SetUp();
        zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL);
    }
};

TEST_F(persist_threads, parallel_additions_for_one_client_lose_nothing) {
    constexpr int k_threads = 4;
    constexpr int k_each = 15;
    std::vector<std::thread> writers;
    for (int t = 0; t < k_threads; ++t)
        writers.emplace_back([t] {
            for (int i = 0; i < k_each; ++i) add_offline("c", "t", std::to_string(t * k_each + i));
        });
    for (std::thread &writer : writers) writer.join();
    const auto rec = loaded("c");
    std::set<std::string> payloads;
    for (int i = 0; i < rec->msg_count; ++i) payloads.insert(zeb_test::payload_of(rec->msgs[i]));
    EXPECT_EQ(payloads.size(), static_cast<std::size_t>(k_threads * k_each));
}

// A reader that came between the removal and the rename of a replacement would find no session.
TEST_F(persist_threads, a_session_is_found_while_it_is_rewritten) {
    auto rec = new_record("c");
    push_sub(rec.get(), "t", 1);
    zeb::persist_mark(rec.get(), zeb::PERSIST_SUBS);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) zeb::persist_mark(rec.get(), zeb::PERSIST_SUBS);
        done.store(true, std::memory_order_relaxed);
    });
    std::thread other([&] {
        auto rec_of_other = new_record("c");
        do {
            EXPECT_EQ(zeb::persist_load_client_only(rec_of_other.get()), 0);
        } while (!done.load(std::memory_order_relaxed));
    });
    auto back = new_record("c");
    do {
        bool found = false;
        EXPECT_EQ(zeb::persist_load_found(back.get(), &found), 0);
        EXPECT_TRUE(found);
        EXPECT_EQ(back->sub_count, 1);
    } while (!done.load(std::memory_order_relaxed));
    writer.join();
    other.join();
}

// A removal that came between the two files of a mark would leave one of them.
TEST_F(persist_threads, marks_and_removals_of_one_client_do_not_interleave) {
    auto rec = new_record("c");
    push_sub(rec.get(), "t", 1);
    for (int round = 0; round < 60; ++round) {
        std::atomic<bool> done{false};
        std::thread remover([&] {
            do {
                EXPECT_EQ(zeb::persist_remove("c"), 0);
            } while (!done.load(std::memory_order_relaxed));
        });
        zeb::persist_mark(rec.get(), zeb::PERSIST_SESSION | zeb::PERSIST_SUBS);
        done.store(true, std::memory_order_relaxed);
        remover.join();
        EXPECT_EQ(fs::exists(session_file("c")), fs::exists(subs_file("c")));
    }
    EXPECT_EQ(zeb::persist_remove("c"), 0);
    EXPECT_EQ(zeb_test::tree(root_).size(), 3u);  // no temporary file either
}

TEST_F(persist_threads, the_retained_file_is_that_of_the_last_change) {
    constexpr int k_threads = 4;
    std::vector<std::thread> writers;
    for (int t = 0; t < k_threads; ++t)
        writers.emplace_back([t] {
            for (int i = 0; i < 60; ++i) {
                const std::string topic = std::to_string(t) + "/" + std::to_string(i % 7);
                EXPECT_EQ(zeb_test::retain(topic, i % 5 == 4 ? "" : std::to_string(i)), 0);
            }
        });
    std::thread other([] {
        for (int i = 0; i < 30; ++i) {
            add_offline("c", "t", "p");
            (void)zeb::persist_remove_offline_msg("c", 1);
        }
    });
    for (std::thread &writer : writers) writer.join();
    other.join();
    const auto expected = zeb_test::retained();
    EXPECT_GT(expected.size(), 4u);
    restart();
    EXPECT_EQ(zeb_test::retained(), expected);
}

template <typename condition>
bool eventually(condition holds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

TEST_F(persist_threads, a_queue_is_changed_while_another_thread_saves_retained_messages) {
    std::atomic<bool> done{false};
    std::unique_lock<std::mutex> saving(zeb::g_persist_mutex);
    std::thread other([&] {
        add_offline("c", "t", "p");
        EXPECT_EQ(zeb::persist_remove_offline_msg("c", 1), 0);
        done.store(true, std::memory_order_relaxed);
    });
    EXPECT_TRUE(eventually([&] { return done.load(std::memory_order_relaxed); }));
    saving.unlock();
    other.join();
}

TEST(fair_mutex, goes_to_those_who_wait_before_its_last_holder_has_it_again) {
    zeb::fair_mutex mutex;
    std::vector<int> order;
    std::vector<std::thread> waiting;
    mutex.lock();
    for (int i = 1; i <= 3; ++i) {
        waiting.emplace_back([&, i] {
            const std::lock_guard<zeb::fair_mutex> guard(mutex);
            order.push_back(i);
        });
        ASSERT_TRUE(eventually([&] { return mutex.users() == static_cast<uint64_t>(i) + 1; }));
    }
    mutex.unlock();
    mutex.lock();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    mutex.unlock();
    for (std::thread &thread : waiting) thread.join();
    EXPECT_EQ(mutex.users(), 0u);
}

}  // namespace

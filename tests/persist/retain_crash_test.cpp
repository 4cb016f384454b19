#include <cstring>
#include <functional>
#include <vector>

#include "persist/retain_file.h"
#include "persist/retain_log.h"
#include "tests/persist/crash_points.h"
#include "tests/persist/persist_fixture.h"

namespace {

namespace fs = std::filesystem;
using zeb_test::file_content;
using zeb_test::g_crash;
using zeb_test::in_child;
using zeb_test::k_crashed;
using zeb_test::put_file;
using zeb_test::retain;
using zeb_test::retained;

using store = std::map<std::string, std::string>;

// A save is all or nothing, at whatever byte it ends.
class retain_crash : public zeb_test::persist_fixture {
  protected:
    // `before` fills the store, `change` alters its messages in memory, and one save follows.
    void all_or_nothing(const std::function<void()> &before, const std::function<void()> &change) {
        std::string old_file;
        std::string new_file;
        for (int at = 1;; ++at) {
            bool crashed = false;
            for (const int percent : {0, 1, 30, 60, 99, 100}) {
                fs::remove(retain_file());
                restart();
                before();
                ASSERT_EQ(zeb::persist_retain_save(), 0);
                old_file = file_content(retain_file());
                const store old_store = retained();
                change();
                const store new_store = retained();
                const int code = in_child([&] {
                    g_crash = {at, percent, 0};
                    EXPECT_EQ(zeb::persist_retain_save(), 0);
                });
                crashed = code == k_crashed;
                restart();
                const store found = retained();
                if (!crashed) new_file = file_content(retain_file());
                EXPECT_TRUE(found == new_store || (crashed && found == old_store)) << at << " " << percent;
                // The start has put the file right, and the next save finds it so.
                ASSERT_EQ(zeb::persist_retain_save(), 0);
                restart();
                EXPECT_EQ(retained(), found);
            }
            if (!crashed) break;
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_NE(old_file, new_file);
    }
    static void fill() {
        for (int i = 0; i < 7; ++i) zeb_test::retain("topic/" + std::to_string(i), std::string(40, 'o'));
    }
    // In memory alone: the store's own functions would save.
    static zeb::retain_msg &message(int i) { return zeb::g_sub_mgr.retains[i]; }
    static void set_payload(zeb::retain_msg *msg, const std::string &payload) {
        memset(msg->payload, 0, sizeof msg->payload);
        payload.copy(reinterpret_cast<char *>(msg->payload), sizeof msg->payload);
        msg->payload_len = static_cast<uint32_t>(payload.size());
    }
    static void set_count(int count) { zeb::g_sub_mgr.retain_count.store(count); }
};

TEST_F(retain_crash, of_an_update_keeps_the_old_message_or_has_the_new_one) {
    all_or_nothing(fill, [] { set_payload(&message(1), std::string(2048, 'n')); });
}

TEST_F(retain_crash, of_a_first_message_has_it_or_not) {
    all_or_nothing([] {},
                   [] {
                       strcpy(message(0).topic, "first");
                       set_payload(&message(0), "p");
                       set_count(1);
                   });
}

TEST_F(retain_crash, of_an_addition_has_it_or_not) {
    all_or_nothing(fill, [] {
        memset(static_cast<void *>(&message(7)), 0, sizeof message(7));
        strcpy(message(7).topic, "topic/7");
        set_payload(&message(7), "p");
        set_count(8);
    });
}

TEST_F(retain_crash, of_a_deletion_loses_no_other_message) {
    all_or_nothing(fill, [] {
        memmove(static_cast<void *>(&message(2)), &message(3), 4 * sizeof message(0));
        set_count(6);
    });
}

TEST_F(retain_crash, of_the_last_deletion_leaves_one_or_none) {
    all_or_nothing(fill, [] { set_count(1); });
}

TEST_F(retain_crash, of_several_changes_at_once_has_all_or_none_of_them) {
    all_or_nothing(fill, [] {
        memmove(static_cast<void *>(&message(0)), &message(1), 6 * sizeof message(0));
        set_payload(&message(3), "changed");
        for (int i = 6; i < 9; ++i) {
            memset(static_cast<void *>(&message(i)), 0, sizeof message(i));
            snprintf(message(i).topic, sizeof message(i).topic, "added/%d", i);
            set_payload(&message(i), std::string(2000, 'a'));
        }
        set_count(9);
    });
}

// A start may be interrupted like anything else.
TEST_F(retain_crash, of_the_completion_of_a_save_is_completed_by_the_next_start) {
    fill();
    set_payload(&message(4), std::string(2000, 'n'));
    const store wanted = retained();
    // The first call writes the log, so that the save counts; the second begins to overwrite the record.
    EXPECT_EQ(in_child([&] {
                  g_crash = {2, 50, 0};
                  (void)zeb::persist_retain_save();
              }),
              k_crashed);
    for (int at = 1;; ++at) {
        const int code = in_child([&] {
            g_crash = {at, 50, 0};
            (void)zeb::persist_retain_load();
        });
        if (code != k_crashed) break;
    }
    restart();
    EXPECT_EQ(retained(), wanted);
    EXPECT_EQ(fs::file_size(retain_file()), 4 + 7 * sizeof(zeb::retain_msg));
}

TEST_F(retain_crash, a_damaged_log_counts_for_nothing) {
    fill();
    set_payload(&message(4), "new");
    EXPECT_EQ(in_child([&] {
                  g_crash = {2, 0, 0};
                  (void)zeb::persist_retain_save();
              }),
              k_crashed);
    const std::string with_log = file_content(retain_file());
    const std::size_t records = 4 + 7 * sizeof(zeb::retain_msg);
    ASSERT_GT(with_log.size(), records);
    restart();
    EXPECT_EQ(retained()["topic/4"], "new");
    for (std::size_t at = records; at < with_log.size(); ++at) {
        std::string damaged = with_log;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x41);
        put_file(retain_file(), damaged);
        restart();
        ASSERT_EQ(retained().size(), 7u);
        EXPECT_EQ(retained()["topic/4"], std::string(40, 'o')) << at;
    }
    for (std::size_t size = records; size < with_log.size(); ++size) {
        put_file(retain_file(), with_log.substr(0, size));
        restart();
        EXPECT_EQ(retained()["topic/4"], std::string(40, 'o'));
    }
}

}  // namespace

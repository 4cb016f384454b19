#include <fcntl.h>

#include <cstring>
#include <functional>
#include <vector>

#include "persist/retain_file.h"
#include "persist/retain_log.h"
#include "tests/persist/crash_points.h"
#include "tests/persist/persist_fixture.h"

namespace {

namespace fs = std::filesystem;
using zeb_test::crash_plan;
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
                    g_crash = crash_plan{.at = at, .written_percent = percent};
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
                  g_crash = crash_plan{.at = 2, .written_percent = 50};
                  (void)zeb::persist_retain_save();
              }),
              k_crashed);
    for (int at = 1;; ++at) {
        const int code = in_child([&] {
            g_crash = crash_plan{.at = at, .written_percent = 50};
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
                  g_crash = crash_plan{.at = 2, .written_percent = 0};
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

// A payload may say whatever its publisher likes, also what a log says.
class forged_log : public retain_crash {
  protected:
    // What a save would append to change one message, as the bytes of a payload.
    std::string log_of(const zeb::retain_msg &msg, int count) {
        const fs::path path = outer_ / "log";
        put_file(path, "");
        const int fd = open(path.c_str(), O_RDWR);
        zeb::retain_slots changed{};
        changed[0] = true;
        EXPECT_TRUE(zeb::retain_log_write(fd, 0, &msg, changed, count));
        EXPECT_EQ(close(fd), 0);
        return file_content(path);
    }
    static zeb::retain_msg forged(const char *topic, const std::string &payload) {
        zeb::retain_msg msg{};
        snprintf(msg.topic, sizeof msg.topic, "%s", topic);
        set_payload(&msg, payload);
        return msg;
    }
};

TEST_F(forged_log, in_the_remains_of_an_addition_counts_for_nothing) {
    fill();
    const std::string records = file_content(retain_file());
    const store before = retained();
    const std::string log = log_of(forged("secret", "forged"), 1);
    for (std::size_t rest = 0; rest < 2048 - log.size(); rest += 100) {
        std::string remains(257 + rest, '\0');
        remains.replace(0, 8, "attacker");
        put_file(retain_file(), records + remains + log);
        restart();
        EXPECT_EQ(retained(), before) << rest;
    }
    put_file(retain_file(), records + log);  // at its place it counts
    restart();
    EXPECT_EQ(retained(), (store{{"secret", "forged"}}));
}

TEST_F(forged_log, with_an_entry_that_is_no_message_counts_for_nothing) {
    fill();
    const std::string records = file_content(retain_file());
    const store before = retained();
    zeb::retain_msg bad[] = {forged("", "p"), forged("t", ""), forged("t", "p")};
    bad[2].qos = 3;
    for (const zeb::retain_msg &msg : bad) {
        put_file(retain_file(), records + log_of(msg, 1));
        restart();
        EXPECT_EQ(retained(), before);
    }
    // No entries at all: a topic may say so much, and it would empty the store.
    put_file(retain_file(), records + log_of(forged("t", "p"), 0));
    restart();
    EXPECT_EQ(retained(), before);
}

TEST_F(forged_log, does_not_stay_behind_the_records_of_a_full_disk) {
    fill();
    const std::string records = file_content(retain_file());
    const std::string payload = log_of(forged("secret", "forged"), 1);
    for (const int percent : {1, 15, 60, 100}) {
        g_crash = crash_plan{.at = 1, .written_percent = percent, .full = true};
        EXPECT_EQ(retain("attacker", payload), 0);  // in memory
        g_crash = {};
        EXPECT_EQ(file_content(retain_file()), records);
        restart();
        EXPECT_EQ(retained().size(), 7u);
    }
}

}  // namespace

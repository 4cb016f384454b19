#include <fcntl.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdarg>

#include "persist/persist_file.h"
#include "tests/persist/crash_points.h"
#include "tests/persist/persist_fixture.h"

namespace zeb_test {

crash_plan g_crash;

namespace {

void note(const char *call, const std::string &path) {
    if (g_crash.trace == nullptr) return;
    const std::size_t directory = path.rfind('/', path.rfind('/') - 1);
    g_crash.trace->push_back(call + std::string(" ") + path.substr(directory + 1));
}

void note(const char *call, int fd) {
    std::error_code ignored;
    note(call, std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ignored).string());
}

bool ends_here() {
    return ++g_crash.calls == g_crash.at;
}

bool interrupted() {
    if (g_crash.interruptions == 0) return false;
    --g_crash.interruptions;
    errno = EINTR;
    return true;
}

}  // namespace

}  // namespace zeb_test

using zeb_test::g_crash;
using zeb_test::k_crashed;

extern "C" {

ssize_t pwrite(int fd, const void *data, size_t size, off_t offset) {
    zeb_test::note("pwrite", fd);
    if (!zeb_test::ends_here()) return syscall(SYS_pwrite64, fd, data, size, offset);
    syscall(SYS_pwrite64, fd, data, size * static_cast<size_t>(g_crash.written_percent) / 100, offset);
    if (!g_crash.full) _exit(k_crashed);
    errno = ENOSPC;
    return -1;
}

int ftruncate(int fd, off_t size) noexcept {
    zeb_test::note("ftruncate", fd);
    if (zeb_test::ends_here()) _exit(k_crashed);
    return zeb_test::interrupted() ? -1 : static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

int fsync(int fd) {
    zeb_test::note("fsync", fd);
    if (zeb_test::ends_here()) _exit(k_crashed);
    return zeb_test::interrupted() ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}

int unlink(const char *path) noexcept {
    zeb_test::note("unlink", path);
    if (zeb_test::ends_here()) _exit(k_crashed);
    return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

int rename(const char *from, const char *to) noexcept {
    zeb_test::note("rename", to);
    if (zeb_test::ends_here()) _exit(k_crashed);
    if (g_crash.failing_renames > 0) {
        --g_crash.failing_renames;
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

int open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return zeb_test::interrupted() ? -1 : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int openat(int directory, const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return zeb_test::interrupted() ? -1 : static_cast<int>(syscall(SYS_openat, directory, path, flags, mode));
}

}  // extern "C"

namespace {

namespace fs = std::filesystem;
using zeb_test::crash_plan;
using zeb_test::in_child;
using zeb_test::loaded;
using zeb_test::new_record;
using zeb_test::payload_of;
using zeb_test::push_sub;

// Whenever the process ends, the next start finds the client's files as they were before or as they are
// meant.
class crash : public zeb_test::persist_fixture {
  protected:
    // Runs `change` once for each of its calls, dying there, and `check` after the start that follows.
    template <typename change, typename check>
    void at_every_call(change run, check verify) {
        constexpr int k_enough = 100;
        int at = 1;
        for (; at < k_enough; ++at) {
            int code = k_crashed;
            for (const int percent : {0, 50, 100}) {
                prepare();
                code = in_child([&] {
                    g_crash = crash_plan{.at = at, .written_percent = percent};
                    run();
                });
                restart();
                for (const auto &[path, content] : zeb_test::tree(root_))
                    EXPECT_EQ(path.find(".tmp"), std::string::npos) << path;
                verify(code != k_crashed);
            }
            if (code != k_crashed) break;
            EXPECT_FALSE(HasFailure()) << "call " << at;
        }
        EXPECT_GT(at, 4);
        EXPECT_LT(at, k_enough);
    }
    virtual void prepare() {
        fs::remove_all(root_);
        restart();
    }
};

TEST_F(crash, of_a_first_write_leaves_nothing_or_all_of_it) {
    at_every_call(
        [&] {
            auto rec = new_record("c");
            push_sub(rec.get(), "a", 1);
            push_sub(rec.get(), "b", 1);
            zeb::persist_mark(rec.get(), zeb::PERSIST_SUBS);
        },
        [&](bool done) {
            bool found = false;
            auto rec = new_record("c");
            ASSERT_EQ(zeb::persist_load_found(rec.get(), &found), 0);
            EXPECT_EQ(rec->sub_count, found ? 2 : 0);
            EXPECT_TRUE(found || !done);
        });
}

class queue_crash : public crash {
  protected:
    void prepare() override {
        crash::prepare();
        zeb_test::add_offline("c", "t", "first");
        zeb_test::add_offline("c", "t", "second");
    }
};

TEST_F(queue_crash, loses_no_message_that_was_stored_before) {
    at_every_call([&] { zeb_test::add_offline("c", "t", "third"); },
                  [&](bool done) {
                      const auto rec = loaded("c");
                      ASSERT_GE(rec->msg_count, done ? 3 : 2);
                      EXPECT_EQ(payload_of(rec->msgs[0]), "first");
                      EXPECT_EQ(payload_of(rec->msgs[1]), "second");
                      EXPECT_TRUE(rec->msg_count == 2 || payload_of(rec->msgs[2]) == "third");
                  });
}

class file_calls : public zeb_test::persist_fixture {
  protected:
    void TearDown() override {
        g_crash = {};
        persist_fixture::TearDown();
    }
    // What an operation asks of the system, in order.
    template <typename operation>
    static std::vector<std::string> calls_of(operation run) {
        std::vector<std::string> out;
        g_crash = crash_plan{.trace = &out};
        run();
        g_crash = {};
        return out;
    }
    // Of one replacement: a file that is new costs every attempt to remove it.
    static std::vector<std::string> replacement(const std::string &dir, bool is_new) {
        const std::string path = dir + "/c.json";
        std::vector<std::string> out{"pwrite " + path + ".tmp", "pwrite " + path + ".tmp",
                                     "fsync " + path + ".tmp"};
        out.insert(out.end(), is_new ? 3 : 1, "unlink " + path);
        out.push_back("rename " + path);
        out.push_back("fsync data/" + dir);
        return out;
    }
};

TEST_F(file_calls, a_file_is_on_the_disk_before_it_takes_its_place) {
    const auto add = [] { zeb_test::add_offline("c", "t", "p"); };
    EXPECT_EQ(calls_of(add), replacement("message", true));
    EXPECT_EQ(calls_of(add), replacement("message", false));
}

TEST_F(file_calls, session_subscriptions_and_messages_are_written_in_this_order) {
    auto rec = new_record("c");
    push_sub(rec.get(), "a", 1);
    zeb_test::push_msg(rec.get(), 1, "t", "p", 1);
    std::vector<std::string> expected;
    for (const char *dir : {"session", "subscription", "message"})
        for (const std::string &call : replacement(dir, true)) expected.push_back(call);
    EXPECT_EQ(calls_of([&] { zeb::persist_mark(rec.get(), 7); }), expected);
    EXPECT_EQ(writes(), 3u);
}

TEST_F(file_calls, a_rename_that_fails_is_tried_three_times_and_counts_as_no_write) {
    zeb_test::add_offline("c", "t", "first");
    const uint64_t writes_before = writes();
    const uint64_t slept_before = clock_.slept_us();
    g_crash = crash_plan{.failing_renames = 3};
    zeb_test::add_offline("c", "t", "second");
    EXPECT_EQ(g_crash.failing_renames, 0);
    EXPECT_EQ(clock_.slept_us(), slept_before + 20000);
    EXPECT_EQ(writes(), writes_before);
    EXPECT_EQ(zeb_test::tree(root_).size(), 3u);  // no temporary file either
    EXPECT_TRUE(log_.has("ERROR", "[persist] 重命名失败: " + msgs_file("c").string()));
}

TEST_F(file_calls, a_rename_that_succeeds_at_last_counts_as_a_write) {
    const uint64_t slept_before = clock_.slept_us();
    g_crash = crash_plan{.failing_renames = 2};
    zeb_test::add_offline("c", "t", "p");
    EXPECT_EQ(clock_.slept_us(), slept_before + 40000);  // two waits for the removal, two for the rename
    EXPECT_EQ(writes(), 1u);
    EXPECT_EQ(loaded("c")->msg_count, 1);
}

TEST_F(file_calls, a_signal_interrupts_nothing) {
    g_crash = crash_plan{.interruptions = 2};
    zeb_test::add_offline("c", "t", "p");
    g_crash.interruptions = 2;
    EXPECT_EQ(loaded("c")->msg_count, 1);
    g_crash.interruptions = 2;
    EXPECT_EQ(zeb_test::retain("r", "v"), 0);
    EXPECT_EQ(g_crash.interruptions, 0);
    EXPECT_EQ(clock_.slept_us(), 20000u);  // for the removal alone
    EXPECT_EQ(log_.text().find("] [ERROR] "), std::string::npos);
}

TEST_F(file_calls, interruptions_of_the_synchronisation_do_not_fail_a_write) {
    const int fd = open((root_ / "synchronised").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    g_crash = crash_plan{.interruptions = 3};
    EXPECT_TRUE(zeb::persist_sync(fd));
    EXPECT_EQ(g_crash.interruptions, 0);
    g_crash.interruptions = 3;
    EXPECT_TRUE(zeb::persist_truncate(fd, 0));
    EXPECT_EQ(g_crash.interruptions, 0);
    EXPECT_EQ(close(fd), 0);
    EXPECT_FALSE(zeb::persist_sync(fd));
}

}  // namespace

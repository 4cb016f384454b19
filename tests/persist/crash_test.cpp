#include <fcntl.h>
#include <sys/syscall.h>

#include "tests/persist/crash_points.h"
#include "tests/persist/persist_fixture.h"

namespace zeb_test {

crash_plan g_crash;

namespace {

bool ends_here() {
    return ++g_crash.calls == g_crash.at;
}

}  // namespace

}  // namespace zeb_test

using zeb_test::g_crash;
using zeb_test::k_crashed;

extern "C" {

ssize_t pwrite(int fd, const void *data, size_t size, off_t offset) {
    if (!zeb_test::ends_here()) return syscall(SYS_pwrite64, fd, data, size, offset);
    syscall(SYS_pwrite64, fd, data, size * static_cast<size_t>(g_crash.written_percent) / 100, offset);
    _exit(k_crashed);
}

int ftruncate(int fd, off_t size) noexcept {
    if (zeb_test::ends_here()) _exit(k_crashed);
    return static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

int fsync(int fd) {
    if (zeb_test::ends_here()) _exit(k_crashed);
    return static_cast<int>(syscall(SYS_fsync, fd));
}

int unlink(const char *path) noexcept {
    if (zeb_test::ends_here()) _exit(k_crashed);
    return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

int rename(const char *from, const char *to) noexcept {
    if (zeb_test::ends_here()) _exit(k_crashed);
    return static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

}  // extern "C"

namespace {

namespace fs = std::filesystem;
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
                    g_crash = {at, percent, 0};
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

}  // namespace

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/log/log_fixture.h"

namespace {

using namespace zeb;
using zeb_test::file_exists;
using zeb_test::file_text;
using zeb_test::line;

constexpr uint32_t k_both = AGENT_LOG_OUT_STDOUT | AGENT_LOG_OUT_FILE;
constexpr char k_path[] = "log.txt";

class agent_log_file_test : public zeb_test::log_fixture {
  protected:
    void SetUp() override { unlink(k_path); }
    void TearDown() override {
        init(AGENT_LOG_DEBUG, AGENT_LOG_OUT_STDOUT);
        unlink(k_path);
    }
    static void write_file(const std::string &text) {
        FILE *file = fopen(k_path, "w");
        ASSERT_NE(file, nullptr);
        fputs(text.c_str(), file);
        fclose(file);
    }
    static std::string logged(const std::string &message) {
        return with_guard_released([&message] { agent_log(AGENT_LOG_WARN, "%s", message.c_str()); });
    }
};

int open_descriptors() {
    int count = 0;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
}

TEST_F(agent_log_file_test, a_single_thread_writes_nothing_to_the_file) {
    init(AGENT_LOG_WARN, k_both, k_path);
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_WARN, "alone"); }), line("WARN", "alone"));
    EXPECT_TRUE(file_exists(k_path));
    EXPECT_EQ(file_text(k_path), "");
}

TEST_F(agent_log_file_test, a_line_is_in_the_file_at_once_when_the_guard_was_released_meanwhile) {
    init(AGENT_LOG_WARN, k_both, k_path);
    std::string at_once;  // read before the end of the capture, which flushes every stream
    EXPECT_EQ(with_guard_released([&at_once] {
                  agent_log(AGENT_LOG_WARN, "one");
                  at_once = file_text(k_path);
              }),
              line("WARN", "one"));
    EXPECT_EQ(at_once, line("WARN", "one"));
    EXPECT_EQ(g_log_in_use.load(), 0);
    EXPECT_EQ(logged("two"), line("WARN", "two"));
    EXPECT_EQ(file_text(k_path), line("WARN", "one") + line("WARN", "two"));
}

TEST_F(agent_log_file_test, an_existing_file_is_continued) {
    write_file("before\n");
    init(AGENT_LOG_WARN, k_both, k_path);
    logged("after");
    EXPECT_EQ(file_text(k_path), "before\n" + line("WARN", "after"));
}

TEST_F(agent_log_file_test, without_the_file_bit_no_file_is_made) {
    init(AGENT_LOG_WARN, AGENT_LOG_OUT_STDOUT, k_path);
    EXPECT_EQ(logged("console"), line("WARN", "console"));
    EXPECT_FALSE(file_exists(k_path));
    EXPECT_EQ(g_log_file, nullptr);
}

TEST_F(agent_log_file_test, a_file_line_keeps_1022_characters_with_its_prefix) {
    init(AGENT_LOG_WARN, k_both, k_path);
    const std::string longest(1022, 'm');
    EXPECT_EQ(logged(longest + "lost"), line("WARN", longest));
    const std::string prefix = "[" + std::string(zeb_test::k_stamp) + "] [WARN] ";
    EXPECT_EQ(file_text(k_path), prefix + std::string(1022 - prefix.size(), 'm') + "\n");
}

TEST_F(agent_log_file_test, a_path_that_cannot_be_opened_leaves_standard_output_only) {
    init(AGENT_LOG_WARN, k_both, "missing/log.txt");
    EXPECT_EQ(g_log_config.output, 1u);
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(logged("console"), line("WARN", "console"));
    EXPECT_EQ(g_log_in_use.load(), 0);
}

TEST_F(agent_log_file_test, a_full_file_starts_over_under_the_same_name) {
    const auto two_lines = static_cast<uint32_t>(line("WARN", "1").size() * 2);
    init(AGENT_LOG_WARN, k_both, k_path, two_lines);
    logged("1");
    logged("2");
    EXPECT_EQ(file_text(k_path), line("WARN", "1") + line("WARN", "2"));
    logged("3");
    EXPECT_EQ(file_text(k_path), line("WARN", "3"));
    logged("4");
    EXPECT_EQ(file_text(k_path), line("WARN", "3") + line("WARN", "4"));
}

TEST_F(agent_log_file_test, a_file_one_byte_below_the_limit_takes_a_line_and_one_at_the_limit_none) {
    write_file(std::string(99, '.'));
    init(AGENT_LOG_WARN, k_both, k_path, 100);
    logged("fits");
    EXPECT_EQ(file_text(k_path), std::string(99, '.') + line("WARN", "fits"));

    write_file(std::string(100, '.'));
    init(AGENT_LOG_WARN, k_both, k_path, 100);
    logged("fresh");
    EXPECT_EQ(file_text(k_path), line("WARN", "fresh"));
}

TEST_F(agent_log_file_test, what_others_append_counts_towards_the_limit) {
    init(AGENT_LOG_WARN, k_both, k_path, 200);
    logged("ours");
    FILE *other = fopen(k_path, "a");
    ASSERT_NE(other, nullptr);
    fputs(std::string(200, '.').c_str(), other);
    fclose(other);
    logged("fresh");
    EXPECT_EQ(file_text(k_path), line("WARN", "fresh"));
}

TEST_F(agent_log_file_test, the_default_limit_is_one_mebibyte) {
    write_file(std::string(1048575, '.'));
    init(AGENT_LOG_WARN, k_both, k_path, 0);
    logged("fits");
    EXPECT_EQ(file_text(k_path).size(), 1048575u + line("WARN", "fits").size());
    logged("fresh");
    EXPECT_EQ(file_text(k_path), line("WARN", "fresh"));
}

TEST_F(agent_log_file_test, a_full_file_that_cannot_be_made_again_ends_file_output) {
    ASSERT_EQ(mkdir("dir", 0700), 0);
    init(AGENT_LOG_WARN, k_both, "dir/log.txt", 10);
    logged("first");
    ASSERT_EQ(unlink("dir/log.txt"), 0);
    ASSERT_EQ(rmdir("dir"), 0);
    EXPECT_EQ(logged("second"), line("WARN", "second"));
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(g_log_in_use.load(), 0);
    EXPECT_EQ(logged("third"), line("WARN", "third"));
}

TEST_F(agent_log_file_test, a_file_without_a_position_is_closed_and_forgotten) {
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    const int reader = open("fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    init(AGENT_LOG_WARN, k_both, "fifo");
    ASSERT_NE(g_log_file, nullptr);
    EXPECT_EQ(logged("console"), line("WARN", "console"));
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(g_log_in_use.load(), 0);
    EXPECT_EQ(g_log_config.output, 3u);
    EXPECT_EQ(logged("again"), line("WARN", "again"));
    close(reader);
    unlink("fifo");
}

TEST_F(agent_log_file_test, a_full_disk_loses_lines_of_the_file_and_nothing_else) {
    init(AGENT_LOG_WARN, k_both, "/dev/full");
    for (int i = 0; i < 100; ++i) EXPECT_EQ(logged("console"), line("WARN", "console"));
    EXPECT_NE(g_log_file, nullptr) << "there may be room again later";
    EXPECT_EQ(g_log_in_use.load(), 0);
}

TEST_F(agent_log_file_test, the_guard_is_set_again_while_a_line_goes_to_the_file) {
    static int guard_at_write;
    guard_at_write = -1;
    cookie_io_functions_t stream{};
    stream.write = [](void *, const char *, size_t len) {
        guard_at_write = g_log_in_use.load();
        return static_cast<ssize_t>(len);
    };
    stream.seek = [](void *, off64_t *, int) { return 0; };
    init(AGENT_LOG_WARN, k_both, k_path);
    fclose(g_log_file);
    g_log_file = fopencookie(nullptr, "a", stream);
    ASSERT_NE(g_log_file, nullptr);
    EXPECT_EQ(logged("line"), line("WARN", "line"));
    EXPECT_EQ(guard_at_write, 1);
    EXPECT_EQ(g_log_in_use.load(), 0);
}

TEST_F(agent_log_file_test, deinit_closes_the_file_and_init_opens_it_again) {
    init(AGENT_LOG_WARN, k_both, k_path);
    logged("one");
    agent_log_deinit();
    EXPECT_EQ(g_log_file, nullptr);
    init(AGENT_LOG_WARN, k_both, k_path);
    logged("two");
    EXPECT_EQ(file_text(k_path), line("WARN", "one") + line("WARN", "two"));
}

TEST_F(agent_log_file_test, deinit_during_a_call_keeps_its_line_out_of_the_file) {
    init(AGENT_LOG_WARN, k_both, k_path);
    on_stamp = [] {
        agent_log_deinit();
        g_log_in_use.store(0);
    };
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_WARN, "late"); }), line("WARN", "late"));
    on_stamp = nullptr;
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(file_text(k_path), "");
}

TEST_F(agent_log_file_test, repeated_inits_hold_one_descriptor) {
    init(AGENT_LOG_WARN, k_both, k_path);
    const int before = open_descriptors();
    for (int i = 0; i < 50; ++i) init(AGENT_LOG_WARN, k_both, k_path);
    EXPECT_EQ(open_descriptors(), before);
    init(AGENT_LOG_WARN, AGENT_LOG_OUT_STDOUT);
    EXPECT_EQ(open_descriptors(), before - 1);
    EXPECT_EQ(g_log_file, nullptr);
}

TEST_F(agent_log_file_test, the_file_is_not_passed_on_to_other_programs) {
    init(AGENT_LOG_WARN, k_both, k_path, 1);
    EXPECT_EQ(fcntl(fileno(g_log_file), F_GETFD), FD_CLOEXEC);
    logged("one");
    logged("two");
    EXPECT_EQ(fcntl(fileno(g_log_file), F_GETFD), FD_CLOEXEC) << "after it started over";
    agent_log_clear_flash();
    EXPECT_EQ(fcntl(fileno(g_log_file), F_GETFD), FD_CLOEXEC) << "after it was cleared";
}

TEST_F(agent_log_file_test, the_configuration_in_force_may_be_given_back_to_init) {
    init(AGENT_LOG_WARN, k_both, k_path, 4711);
    agent_log_init(&g_log_config);
    EXPECT_EQ(g_log_config.max_file_size, 4711u);
    EXPECT_STREQ(g_log_config.file_path, k_path);
    EXPECT_EQ(g_log_config.file_path, g_log_file_path);
    logged("same");
    EXPECT_EQ(file_text(k_path), line("WARN", "same"));
}

TEST_F(agent_log_file_test, the_callers_path_may_die_after_init) {
    std::string path = k_path;
    init(AGENT_LOG_WARN, k_both, path.c_str(), 1);
    path.assign(path.size(), '#');
    logged("one");
    logged("two");
    EXPECT_EQ(file_text(k_path), line("WARN", "two"));
}

TEST_F(agent_log_file_test, an_overlong_path_is_cut_to_the_buffer) {
    const std::string path(600, 'd');
    init(AGENT_LOG_WARN, AGENT_LOG_OUT_STDOUT, path.c_str());
    EXPECT_EQ(std::string(g_log_file_path), std::string(511, 'd'));
}

TEST_F(agent_log_file_test, without_a_path_the_default_file_is_used) {
    unlink("zeb_flash.txt");
    init(AGENT_LOG_WARN, k_both, "");
    logged("default");
    EXPECT_EQ(file_text("zeb_flash.txt"), line("WARN", "default"));
    init(AGENT_LOG_DEBUG, AGENT_LOG_OUT_STDOUT);
    unlink("zeb_flash.txt");
}

TEST_F(agent_log_file_test, clearing_empties_the_file_and_logging_goes_on) {
    init(AGENT_LOG_WARN, k_both, k_path);
    logged("old");
    agent_log_clear_flash();
    EXPECT_EQ(g_log_in_use.load(), 0);
    EXPECT_EQ(file_text(k_path), "");
    logged("new");
    EXPECT_EQ(file_text(k_path), line("WARN", "new"));
}

TEST_F(agent_log_file_test, clearing_with_the_guard_set_changes_nothing) {
    init(AGENT_LOG_WARN, k_both, k_path);
    logged("old");
    g_log_in_use.store(1);
    agent_log_clear_flash();
    EXPECT_EQ(g_log_in_use.load(), 1);
    EXPECT_EQ(file_text(k_path), line("WARN", "old"));
    g_log_in_use.store(0);
}

TEST_F(agent_log_file_test, clearing_after_deinit_leaves_the_file_closed) {
    init(AGENT_LOG_WARN, k_both, k_path);
    logged("old");
    agent_log_deinit();
    agent_log_clear_flash();
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(file_text(k_path), line("WARN", "old"));
}

TEST_F(agent_log_file_test, clearing_a_file_that_cannot_be_made_again_ends_file_output) {
    ASSERT_EQ(mkdir("dir", 0700), 0);
    init(AGENT_LOG_WARN, k_both, "dir/log.txt");
    ASSERT_EQ(unlink("dir/log.txt"), 0);
    ASSERT_EQ(rmdir("dir"), 0);
    agent_log_clear_flash();
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(g_log_in_use.load(), 0);
    EXPECT_EQ(logged("console"), line("WARN", "console"));
}

}  // namespace

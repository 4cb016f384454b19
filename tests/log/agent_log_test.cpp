#include <fcntl.h>
#include <unistd.h>
#include <wchar.h>

#include <cerrno>

#include "tests/log/log_fixture.h"

namespace {

using namespace zeb;
using zeb_test::line;

class agent_log_test : public zeb_test::log_fixture {};

// Constant initialisation comes first, so these are the values before any call.
struct initial_state {
    agent_log_config config = g_log_config;
    int in_use = g_log_in_use.load(std::memory_order_relaxed);
    bool path_is_shared = g_log_config.file_path == g_log_file_path;
    bool closed = g_log_file == nullptr;
};
const initial_state k_initial;

// The compiler knows the plain functions and refuses a null format.
void (*volatile const unchecked_log)(uint32_t, const char *, ...) = agent_log;
void (*volatile const unchecked_printf)(const char *, ...) = agent_log_printf;

TEST_F(agent_log_test, before_the_first_init_everything_goes_to_standard_output_only) {
    EXPECT_EQ(k_initial.config.level, 0u);
    EXPECT_EQ(k_initial.config.output, 1u);
    EXPECT_EQ(k_initial.config.max_file_size, 1048576u);
    EXPECT_EQ(k_initial.config.max_entries, 256);
    EXPECT_TRUE(k_initial.path_is_shared);
    EXPECT_EQ(k_initial.in_use, 0);
    EXPECT_TRUE(k_initial.closed);
}

TEST_F(agent_log_test, each_level_prints_its_name) {
    const std::string text = printed([] {
        for (uint32_t level = 0; level < 6; ++level) agent_log(level, "n=%u", level);
    });
    EXPECT_EQ(text, line("DEBUG", "n=0") + line("INFO", "n=1") + line("WARN", "n=2") + line("ERROR", "n=3") +
                        line("FATAL", "n=4") + line("UNKNOWN", "n=5"));
}

TEST_F(agent_log_test, level_seven_prints_unknown_as_its_name) {
    EXPECT_EQ(printed([] { agent_log(7, "odd"); }), line("UNKNOWN", "odd"));
}

TEST_F(agent_log_test, a_line_below_the_level_is_not_written) {
    agent_log_set_level(AGENT_LOG_WARN);
    const std::string text = printed([] {
        agent_log(AGENT_LOG_INFO, "low");
        agent_log(AGENT_LOG_WARN, "equal");
        agent_log(AGENT_LOG_FATAL, "high");
    });
    EXPECT_EQ(text, line("WARN", "equal") + line("FATAL", "high"));
}

TEST_F(agent_log_test, setting_a_level_of_five_or_more_changes_nothing) {
    agent_log_set_level(AGENT_LOG_FATAL);
    EXPECT_EQ(g_log_config.level, 4u);
    agent_log_set_level(5);
    EXPECT_EQ(g_log_config.level, 4u);
    agent_log_set_level(0xFFFFFFFF);
    EXPECT_EQ(g_log_config.level, 4u);
    agent_log_set_level(AGENT_LOG_DEBUG);
    EXPECT_EQ(g_log_config.level, 0u);
}

TEST_F(agent_log_test, a_macro_line_below_the_level_evaluates_no_argument) {
    int evaluated = 0;
    agent_log_set_level(AGENT_LOG_INFO);
    const std::string text = printed([&evaluated] {
        ZEB_LOG(AGENT_LOG_DEBUG, "%d", ++evaluated);
        ZEB_LOG(AGENT_LOG_INFO, "%d", ++evaluated);
    });
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(text, line("INFO", "1"));
}

TEST_F(agent_log_test, a_2000_character_message_is_cut_to_1022) {
    const std::string message(2000, 'm');
    const std::string text = printed([&message] { agent_log(AGENT_LOG_INFO, "%s", message.c_str()); });
    EXPECT_EQ(text, line("INFO", std::string(1022, 'm')));
}

TEST_F(agent_log_test, a_message_of_1022_characters_is_whole_and_one_more_is_lost) {
    const std::string fits(1022, 'f');
    const std::string over = fits + "o";
    const std::string text = printed([&] {
        agent_log(AGENT_LOG_INFO, "%s", fits.c_str());
        agent_log(99, "%s", over.c_str());
    });
    EXPECT_EQ(text, line("INFO", fits) + line("UNKNOWN", fits));
}

TEST_F(agent_log_test, the_cut_may_split_a_multibyte_character) {
    std::string message(1020, 'x');
    message += "\xE7\xBB\xB4\xE6\xB5\x8B";
    const std::string text = printed([&message] { agent_log(AGENT_LOG_INFO, "%s", message.c_str()); });
    EXPECT_EQ(text, line("INFO", std::string(1020, 'x') + "\xE7\xBB"));
}

// The locale "C" has no bytes for that character, which makes formatting fail half-way.
TEST_F(agent_log_test, a_message_that_cannot_be_formatted_is_an_empty_line) {
    const std::string text = printed([] {
        agent_log(AGENT_LOG_INFO, "x%lc", static_cast<wint_t>(0xD800));
        agent_log_printf("x%lc", static_cast<wint_t>(0xD800));
    });
    EXPECT_EQ(text, line("INFO", "") + line("INFO", ""));
}

TEST_F(agent_log_test, printf_logs_at_info_and_keeps_255_characters) {
    const std::string message(300, 'p');
    const std::string text = printed([&message] {
        agent_log_printf("%s|%d", "100%s", 5);
        agent_log_printf("%s", message.c_str());
    });
    EXPECT_EQ(text, line("INFO", "100%s|5") + line("INFO", std::string(255, 'p')));
}

TEST_F(agent_log_test, printf_is_silent_above_info) {
    agent_log_set_level(AGENT_LOG_WARN);
    EXPECT_EQ(printed([] { agent_log_printf("hidden"); }), "");
}

TEST_F(agent_log_test, a_null_format_is_ignored) {
    EXPECT_EQ(printed([] {
                  unchecked_log(AGENT_LOG_FATAL, nullptr);
                  unchecked_printf(nullptr);
              }),
              "");
    EXPECT_EQ(g_log_in_use.load(), 0);
}

TEST_F(agent_log_test, a_call_that_finds_the_guard_set_loses_its_line) {
    g_log_in_use.store(1);
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_FATAL, "lost"); }), "");
    EXPECT_EQ(g_log_in_use.load(), 1) << "the guard belongs to the other call";
    g_log_in_use.store(0);
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_FATAL, "seen"); }), line("FATAL", "seen"));
    EXPECT_EQ(g_log_in_use.load(), 0);
}

TEST_F(agent_log_test, output_without_bits_writes_nothing_and_releases_the_guard) {
    init(AGENT_LOG_DEBUG, 0);
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_FATAL, "nowhere"); }), "");
    EXPECT_EQ(g_log_in_use.load(), 0);
}

TEST_F(agent_log_test, logging_keeps_the_callers_errno) {
    on_stamp = [] { errno = EINTR; };
    int after = 0;
    const std::string text = printed([&after] {
        errno = ENOSPC;
        agent_log(AGENT_LOG_INFO, "written");
        after = errno;
    });
    EXPECT_EQ(after, ENOSPC);
    EXPECT_EQ(text, line("INFO", "written"));
}

// A pipe in packet mode returns what one write handed over, no more.
TEST_F(agent_log_test, a_line_reaches_a_pipe_in_one_write) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC | O_NONBLOCK), 0);
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
    agent_log(AGENT_LOG_INFO, "%s", "one");
    agent_log(AGENT_LOG_WARN, "%s", "two");
    dup2(saved, STDOUT_FILENO);
    char first[4096];
    char second[4096];
    const ssize_t first_len = read(ends[0], first, sizeof first);
    const ssize_t second_len = read(ends[0], second, sizeof second);
    close(saved);
    close(ends[0]);
    close(ends[1]);
    ASSERT_GT(first_len, 0);
    ASSERT_GT(second_len, 0);
    EXPECT_EQ(std::string(first, static_cast<size_t>(first_len)), line("INFO", "one"));
    EXPECT_EQ(std::string(second, static_cast<size_t>(second_len)), line("WARN", "two"));
}

TEST_F(agent_log_test, after_deinit_nothing_is_printed_until_the_next_init) {
    agent_log_deinit();
    EXPECT_EQ(g_log_in_use.load(), 1);
    EXPECT_EQ(printed([] {
                  agent_log(AGENT_LOG_FATAL, "silent");
                  agent_log_printf("silent");
                  const uint8_t byte = 0;
                  agent_log_hexdump("silent", &byte, 1);
              }),
              "");
    init(AGENT_LOG_WARN, AGENT_LOG_OUT_STDOUT);
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_WARN, "back"); }), line("WARN", "back"));
}

TEST_F(agent_log_test, deinit_twice_and_init_once_speaks_again) {
    agent_log_deinit();
    agent_log_deinit();
    EXPECT_EQ(g_log_in_use.load(), 1);
    agent_log_init(nullptr);
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_INFO, "back"); }), line("INFO", "back"));
}

TEST_F(agent_log_test, a_call_under_way_during_deinit_does_not_release_the_guard) {
    on_stamp = [] { agent_log_deinit(); };
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_INFO, "last"); }), line("INFO", "last"));
    on_stamp = nullptr;
    EXPECT_EQ(g_log_in_use.load(), 1);
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_FATAL, "silent"); }), "");
}

TEST_F(agent_log_test, a_call_under_way_during_two_deinits_does_not_release_the_guard) {
    on_stamp = [] {
        agent_log_deinit();
        agent_log_deinit();
    };
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_INFO, "last"); }), line("INFO", "last"));
    on_stamp = nullptr;
    EXPECT_EQ(g_log_in_use.load(), 1);
}

TEST_F(agent_log_test, a_call_under_way_during_a_restart_leaves_the_guard_free) {
    on_stamp = [] {
        agent_log_deinit();
        agent_log_init(nullptr);
    };
    EXPECT_EQ(printed([] { agent_log(AGENT_LOG_INFO, "across"); }), line("INFO", "across"));
    on_stamp = nullptr;
    EXPECT_EQ(g_log_in_use.load(), 0);
}

TEST_F(agent_log_test, clearing_the_guard_by_hand_after_deinit_frees_it_for_good) {
    agent_log_deinit();
    g_log_in_use.store(0);
    EXPECT_EQ(printed([] {
                  agent_log(AGENT_LOG_INFO, "first");
                  agent_log(AGENT_LOG_INFO, "second");
              }),
              line("INFO", "first") + line("INFO", "second"));
}

TEST_F(agent_log_test, init_without_a_configuration_only_frees_the_guard) {
    init(AGENT_LOG_ERROR, AGENT_LOG_OUT_STDOUT, "kept.txt", 77);
    g_log_in_use.store(1);
    agent_log_init(nullptr);
    EXPECT_EQ(g_log_in_use.load(), 0);
    EXPECT_EQ(g_log_config.level, 3u);
    EXPECT_EQ(g_log_config.output, 1u);
    EXPECT_EQ(g_log_config.max_file_size, 77u);
    EXPECT_STREQ(g_log_config.file_path, "kept.txt");
}

TEST_F(agent_log_test, init_fills_in_the_defaults) {
    struct row {
        uint16_t given;
        uint16_t expected;
    };
    for (const row &r : {row{0, 256}, row{1, 1}, row{1024, 1024}, row{1025, 256}, row{65535, 256}}) {
        const agent_log_config config{0, AGENT_LOG_OUT_STDOUT, 0, r.given, ""};
        agent_log_init(&config);
        EXPECT_EQ(g_log_config.max_entries, r.expected) << r.given;
        EXPECT_EQ(g_log_config.max_file_size, 1048576u);
        EXPECT_STREQ(g_log_config.file_path, "zeb_flash.txt");
        EXPECT_EQ(g_log_config.file_path, g_log_file_path);
    }
}

TEST_F(agent_log_test, no_entries_are_kept) {
    agent_log(AGENT_LOG_INFO, "entry");
    EXPECT_EQ(agent_log_get_count(), 0u);
    EXPECT_EQ(agent_log_get_entry(0), nullptr);
    EXPECT_EQ(agent_log_get_entry(0xFFFFFFFF), nullptr);
}

}  // namespace

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <vector>

#include "tests/log/log_fixture.h"

namespace {

using namespace zeb;
using zeb_test::line;

class agent_log_hexdump_test : public zeb_test::log_fixture {
  protected:
    static std::string dumped(const char *title, const uint8_t *data, uint16_t len) {
        return printed([=] { agent_log_hexdump(title, data, len); });
    }
    static constexpr std::array<uint8_t, 17> k_bytes{0x00, 0x01, 0x0A, 0x0F, 0x10, 0x7F, 0x80, 0x9C, 0xA5,
                                                     0xB6, 0xC7, 0xD8, 0xE9, 0xFA, 0xFE, 0xFF, 0x3B};
    static constexpr char k_full_line[] = "00 01 0A 0F 10 7F 80 9C A5 B6 C7 D8 E9 FA FE FF ";
};

TEST_F(agent_log_hexdump_test, seventeen_bytes_make_a_title_and_two_lines) {
    EXPECT_EQ(dumped("t", k_bytes.data(), 17),
              line("DEBUG", "t") + line("DEBUG", k_full_line) + line("DEBUG", "3B "));
}

TEST_F(agent_log_hexdump_test, sixteen_bytes_make_one_line) {
    EXPECT_EQ(dumped("t", k_bytes.data(), 16), line("DEBUG", "t") + line("DEBUG", k_full_line));
}

TEST_F(agent_log_hexdump_test, a_short_line_after_a_full_one_shows_only_its_own_bytes) {
    const std::vector<uint8_t> data(34, 0xAB);
    std::string full;
    for (int i = 0; i < 16; ++i) full += "AB ";
    EXPECT_EQ(dumped(nullptr, data.data(), 34),
              line("DEBUG", full) + line("DEBUG", full) + line("DEBUG", "AB AB "));
}

TEST_F(agent_log_hexdump_test, no_bytes_write_nothing_not_even_the_title) {
    EXPECT_EQ(dumped("t", k_bytes.data(), 0), "");
    EXPECT_EQ(dumped("t", nullptr, 0), "");
}

TEST_F(agent_log_hexdump_test, null_data_writes_nothing) {
    EXPECT_EQ(dumped("t", nullptr, 5), "");
}

TEST_F(agent_log_hexdump_test, without_a_title_only_the_bytes_are_written) {
    EXPECT_EQ(dumped(nullptr, k_bytes.data(), 1), line("DEBUG", "00 "));
}

TEST_F(agent_log_hexdump_test, a_title_is_no_format) {
    EXPECT_EQ(dumped("%s%n", k_bytes.data(), 1), line("DEBUG", "%s%n") + line("DEBUG", "00 "));
}

TEST_F(agent_log_hexdump_test, above_debug_nothing_is_written) {
    agent_log_set_level(AGENT_LOG_INFO);
    EXPECT_EQ(dumped("t", k_bytes.data(), 17), "");
}

TEST_F(agent_log_hexdump_test, above_debug_the_bytes_are_not_even_read) {
    constexpr size_t k_size = 4096;
    void *unreadable = mmap(nullptr, k_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(unreadable, MAP_FAILED);
    agent_log_set_level(AGENT_LOG_INFO);
    EXPECT_EQ(dumped("t", static_cast<const uint8_t *>(unreadable), k_size), "");
    munmap(unreadable, k_size);
}

TEST_F(agent_log_hexdump_test, the_longest_dump_ends_with_its_last_byte) {
    std::vector<uint8_t> data(65535, 0x00);
    data.back() = 0xEE;
    const std::string text = dumped(nullptr, data.data(), 65535);
    const std::string last = line("DEBUG", "00 00 00 00 00 00 00 00 00 00 00 00 00 00 EE ");
    ASSERT_GT(text.size(), last.size());
    EXPECT_EQ(text.substr(text.size() - last.size()), last);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4096);
}

}  // namespace

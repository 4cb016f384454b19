#include "app/console_input.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

using namespace zeb;

namespace {

// A text as a stream. Fixed storage: nothing may be read that is not part of it.
class typed {
  public:
    explicit typed(const std::string &text) : text_(text), file_(fmemopen(text_.data(), text_.size(), "r")) {}
    ~typed() { (void)fclose(file_); }
    typed(const typed &) = delete;
    typed &operator=(const typed &) = delete;

    operator FILE *() const { return file_; }
    std::string rest() const {
        std::string out;
        for (int c = getc(file_); c != EOF; c = getc(file_)) out.push_back(static_cast<char>(c));
        return out;
    }

  private:
    std::string text_;
    FILE *file_;
};

// A buffer of which every byte that is not part of the answer must stay as it is.
struct guarded {
    char text[8];
    char guard[8];
    guarded() { memset(this, '#', sizeof *this); }
    void expect_whole() const { EXPECT_EQ(std::string(guard, sizeof guard), "########"); }
};

}  // namespace

TEST(input_word, a_word_ends_at_white_space_which_stays) {
    for (const char space : std::string(" \t\n\v\f\r")) {
        const typed in(std::string("abc") + space + "def");
        guarded out;
        EXPECT_TRUE(input_read_word(in, out.text, sizeof out.text));
        EXPECT_STREQ(out.text, "abc");
        EXPECT_EQ(in.rest(), space + std::string("def"));
        out.expect_whole();
    }
}

TEST(input_word, white_space_and_empty_lines_before_a_word_are_skipped) {
    const typed in("\n\r\n \t\v\fabc\n");
    guarded out;
    EXPECT_TRUE(input_read_word(in, out.text, sizeof out.text));
    EXPECT_STREQ(out.text, "abc");
}

TEST(input_word, a_word_that_just_fits_is_whole) {
    const typed in("1234567 8");
    guarded out;
    EXPECT_TRUE(input_read_word(in, out.text, sizeof out.text));
    EXPECT_STREQ(out.text, "1234567");
    EXPECT_EQ(in.rest(), " 8");
    out.expect_whole();
}

TEST(input_word, the_rest_of_a_long_word_does_not_become_the_next_word) {
    for (const std::size_t length : {8u, 9u, 5000u, 200000u}) {
        const typed in("1234567" + std::string(length - 7, 'x') + "\nnext\n");
        guarded out;
        EXPECT_TRUE(input_read_word(in, out.text, sizeof out.text));
        EXPECT_STREQ(out.text, "1234567");
        EXPECT_TRUE(input_read_word(in, out.text, sizeof out.text));
        EXPECT_STREQ(out.text, "next");
        out.expect_whole();
    }
}

TEST(input_word, a_buffer_of_one_byte_holds_the_empty_text) {
    const typed in("abc def");
    guarded out;
    EXPECT_TRUE(input_read_word(in, out.text, 1));
    EXPECT_EQ(std::string(out.text, 3), std::string("\0##", 3));
    EXPECT_EQ(in.rest(), " def");
}

TEST(input_word, bytes_outside_ascii_belong_to_the_word) {
    const typed in("客\xff\xa0 x");
    guarded out;
    EXPECT_TRUE(input_read_word(in, out.text, sizeof out.text));
    EXPECT_STREQ(out.text, "客\xff\xa0");
}

TEST(input_word, a_word_may_end_with_the_input) {
    const typed in("abc");
    guarded out;
    EXPECT_TRUE(input_read_word(in, out.text, sizeof out.text));
    EXPECT_STREQ(out.text, "abc");
    EXPECT_FALSE(input_read_word(in, out.text, sizeof out.text));
}

TEST(input_word, the_end_of_the_input_leaves_the_buffer_alone) {
    for (const char *text : {"", "\n", " \t\r\n"}) {
        const typed in(text);
        guarded out;
        EXPECT_FALSE(input_read_word(in, out.text, sizeof out.text));
        EXPECT_EQ(std::string(out.text, sizeof out.text), "########");
    }
}

TEST(input_number, reads_what_percent_d_reads) {
    struct row {
        const char *text;
        int value;
        const char *rest;
    };
    constexpr row k_rows[] = {
        {"0\n", 0, "\n"},
        {"13\n", 13, "\n"},
        {"  \n\t7 8", 7, " 8"},
        {"+5x", 5, "x"},
        {"-12\n", -12, "\n"},
        {"007\n", 7, "\n"},
        {"3abc", 3, "abc"},
        {"5.9", 5, ".9"},
        {"0x10", 0, "x10"},
        {"1-2", 1, "-2"},
        {"42", 42, ""},
        {"2147483647", INT_MAX, ""},
        {"-2147483648", INT_MIN, ""},
    };
    for (const row &r : k_rows) {
        const typed in(r.text);
        int value = 99;
        EXPECT_TRUE(input_read_int(in, &value)) << r.text;
        EXPECT_EQ(value, r.value) << r.text;
        EXPECT_EQ(in.rest(), r.rest) << r.text;
    }
}

TEST(input_number, a_number_out_of_range_is_cut_to_the_range_and_never_wraps) {
    struct row {
        const char *text;
        int value;
    };
    constexpr row k_rows[] = {
        {"2147483648\n", INT_MAX},  {"-2147483649\n", INT_MIN},          {"4294967297\n", INT_MAX},
        {"-4294967295\n", INT_MIN}, {"18446744073709551617\n", INT_MAX}, {"-18446744073709551617\n", INT_MIN},
    };
    for (const row &r : k_rows) {
        const typed in(r.text);
        int value = 99;
        EXPECT_TRUE(input_read_int(in, &value)) << r.text;
        EXPECT_EQ(value, r.value) << r.text;
        EXPECT_EQ(in.rest(), "\n") << r.text;
    }
    const typed endless(std::string(200000, '9') + "\n");
    int value = 99;
    EXPECT_TRUE(input_read_int(endless, &value));
    EXPECT_EQ(value, INT_MAX);
}

TEST(input_number, letters_stay_in_the_input_and_leave_the_number_alone) {
    struct row {
        const char *text;
        const char *rest;
    };
    constexpr row k_rows[] = {
        {"abc\n", "abc\n"}, {" \nx1", "x1"}, {"-x", "x"}, {"+-3", "-3"}, {"- 3", " 3"}, {"七", "七"},
    };
    for (const row &r : k_rows) {
        const typed in(r.text);
        int value = 99;
        EXPECT_FALSE(input_read_int(in, &value)) << r.text;
        EXPECT_EQ(value, 99) << r.text;
        EXPECT_EQ(in.rest(), r.rest) << r.text;
    }
}

TEST(input_number, the_end_of_the_input_leaves_the_number_alone) {
    for (const char *text : {"", "\n\n", "-"}) {
        const typed in(text);
        int value = 99;
        EXPECT_FALSE(input_read_int(in, &value));
        EXPECT_EQ(value, 99);
        EXPECT_NE(feof(in), 0);
    }
}

TEST(input_line, a_line_loses_its_line_feed_only) {
    const typed in(" a b\r\nnext\n");
    guarded out;
    EXPECT_TRUE(input_read_line(in, out.text, sizeof out.text));
    EXPECT_STREQ(out.text, " a b\r");
    EXPECT_EQ(in.rest(), "next\n");
    out.expect_whole();
}

TEST(input_line, an_empty_line_is_an_empty_text) {
    const typed in("\nnext\n");
    guarded out;
    EXPECT_TRUE(input_read_line(in, out.text, sizeof out.text));
    EXPECT_STREQ(out.text, "");
    EXPECT_EQ(in.rest(), "next\n");
}

TEST(input_line, the_rest_of_a_long_line_does_not_become_the_next_line) {
    for (const std::size_t length : {7u, 8u, 9u, 5000u, 200000u}) {
        const typed in("1 34567" + std::string(length - 7, 'x') + "\nnext\n");
        guarded out;
        EXPECT_TRUE(input_read_line(in, out.text, sizeof out.text));
        EXPECT_STREQ(out.text, "1 34567");
        EXPECT_TRUE(input_read_line(in, out.text, sizeof out.text));
        EXPECT_STREQ(out.text, "next");
        out.expect_whole();
    }
}

TEST(input_line, a_line_may_end_with_the_input) {
    const typed in("abc");
    guarded out;
    EXPECT_TRUE(input_read_line(in, out.text, sizeof out.text));
    EXPECT_STREQ(out.text, "abc");
}

TEST(input_line, the_end_of_the_input_leaves_the_buffer_alone) {
    const typed in("");
    guarded out;
    EXPECT_FALSE(input_read_line(in, out.text, sizeof out.text));
    EXPECT_EQ(std::string(out.text, sizeof out.text), "########");
}

TEST(input_line, a_zero_byte_ends_the_text_but_not_the_line) {
    const typed in(std::string("a\0b\nnext\n", 9));
    guarded out;
    EXPECT_TRUE(input_read_line(in, out.text, sizeof out.text));
    EXPECT_STREQ(out.text, "a");
    EXPECT_EQ(in.rest(), "next\n");
}

TEST(input_char, one_character_is_skipped_and_the_end_is_no_trouble) {
    const typed in("\nab");
    input_skip_char(in);
    EXPECT_EQ(in.rest(), "ab");
    input_skip_char(in);
    EXPECT_NE(feof(in), 0);
}

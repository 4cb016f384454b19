#pragma once

#include <climits>
#include <cstddef>
#include <cstdio>

// What the operator types, read the way scanf's "%s" and "%d" and fgets read it, but never past a buffer: an
// answer that is too long is cut, and its rest is thrown away instead of answering the next question. One
// thread reads. Nothing is written to the caller's variable unless the result is true. At the end of the
// input every call returns at once.

namespace zeb {

// Space, tab, line feed, vertical tab, form feed and carriage return, whatever the locale.
inline bool input_is_space(int c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The first character that is not white space, or EOF.
inline int input_skip_space(FILE *in) {
    int c = getc(in);
    while (input_is_space(c)) c = getc(in);
    return c;
}

inline void input_put_back(int c, FILE *in) {
    // One character always fits. The end stays marked: a terminal that ended its input is not asked again.
    if (c != EOF) (void)ungetc(c, in);
}

// "%s": a word up to white space, which stays in the input. size is at least 1. False at the end of the
// input.
inline bool input_read_word(FILE *in, char *buf, std::size_t size) {
    int c = input_skip_space(in);
    if (c == EOF) return false;
    std::size_t len = 0;
    for (; c != EOF && !input_is_space(c); c = getc(in)) {
        if (len + 1 < size) buf[len++] = static_cast<char>(c);
    }
    buf[len] = '\0';
    input_put_back(c, in);
    return true;
}

// "%d": a decimal number with an optional sign, cut to the range of an int. False at the end of the input,
// and when something else stands there, which then stays in the input.
inline bool input_read_int(FILE *in, int *out) {
    int c = input_skip_space(in);
    const bool negative = c == '-';
    if (c == '-' || c == '+') c = getc(in);
    bool found = false;
    long long value = 0;
    for (; c >= '0' && c <= '9'; c = getc(in)) {
        found = true;
        // One above INT_MAX is enough to know on which side the number left the range.
        if (value <= INT_MAX) value = value * 10 + (c - '0');
    }
    input_put_back(c, in);
    if (!found) return false;
    if (negative) value = -value;
    *out = value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
    return true;
}

// fgets without the line feed: the rest of the line, possibly empty. size is at least 1. False when the input
// ends before the first character.
inline bool input_read_line(FILE *in, char *buf, std::size_t size) {
    int c = getc(in);
    if (c == EOF) return false;
    std::size_t len = 0;
    for (; c != EOF && c != '\n'; c = getc(in)) {
        if (len + 1 < size) buf[len++] = static_cast<char>(c);
    }
    buf[len] = '\0';
    return true;
}

inline void input_skip_char(FILE *in) {
    (void)getc(in);  // nothing to skip at the end of the input
}

}  // namespace zeb

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "persist/persist.h"

// The text of a client's three files. Nothing is escaped, so an entry whose text would read back as something
// else (a filter that carries a second entry, a topic with a quote) is left out and named in the log.

namespace zeb {

// Fills a buffer; what does not fit is cut at its end. The text is terminated after every step.
class text_writer {
  public:
    text_writer(char *buf, std::size_t size) : buf_(buf), size_(size) { buf_[0] = '\0'; }

    void add(std::string_view text) {
        const std::size_t room = size_ - 1 - len_;
        rewind(len_ + text.copy(buf_ + len_, room));
    }
    void add_number(uint64_t value);
    // Two digits per byte; a pair is begun only while the text is shorter than `limit`.
    void add_hex(const uint8_t *data, std::size_t count, std::size_t limit);

    std::size_t len() const { return len_; }
    std::string_view from(std::size_t start) const { return {buf_ + start, len_ - start}; }
    void rewind(std::size_t len) {
        len_ = len;
        buf_[len_] = '\0';
    }

  private:
    char *buf_;
    std::size_t size_;
    std::size_t len_ = 0;
};

// A text field up to its terminator, or whole without one.
template <std::size_t size>
std::string_view persist_field(const char (&field)[size]) {
    return {field, strnlen(field, size - 1)};
}

// What the kinds need by the layout's own reckoning, without the 100 bytes that every buffer has on top. The
// session file's share is small on purpose: alone it is cut after 227 characters.
std::size_t persist_text_base(const persist_session &rec, int kinds);
inline constexpr std::size_t PERSIST_TEXT_SPARE = 100;
inline constexpr std::size_t PERSIST_MSG_SHARE = 2368;
// No queue's text is longer.
inline constexpr std::size_t PERSIST_QUEUE_TEXT_MAX =
    PERSIST_MAX_MSGS * PERSIST_MSG_SHARE + PERSIST_TEXT_SPARE;

int persist_sub_count(const persist_session &rec);  // within the arrays whatever the record says
int persist_msg_count(const persist_session &rec);

void persist_format_session(const persist_session &rec, text_writer *out);
void persist_format_subs(const persist_session &rec, text_writer *out);
void persist_format_msgs(const persist_session &rec, std::size_t base, text_writer *out);

// Whether the message's text reads back as the message. A line names it when it does not.
bool persist_msg_reads_back(std::string_view client_id, const persist_msg &msg);

}  // namespace zeb

#pragma once

#include <cstddef>
#include <string_view>

#include "persist/persist.h"

// How the text files are read: a key is searched as it stands, the first place counts, and what cannot be
// found is skipped. Files come from a disk that others may write to: nothing here reads outside the text or
// writes outside a field.

namespace zeb {

// A longer message object is cut there when a client's files are loaded.
inline constexpr std::size_t PERSIST_OBJECT_MAX = 1023;

// Moves *text behind the first `key`; false, and *text unchanged, without one.
bool persist_skip_past(std::string_view *text, std::string_view key);

void persist_parse_session(std::string_view text, persist_session *rec);
// Takes the next entry and moves *text behind it; false at the end. Objects that are no message are passed.
bool persist_take_sub(std::string_view *text, persist_sub *out);
bool persist_take_msg(std::string_view *text, std::size_t object_max, persist_msg *out);

// Whether persist_parse_session would take a part of `text` for one of its keys.
bool persist_has_session_key(std::string_view text);

}  // namespace zeb

#pragma once

#include <cstdint>

#include "sub/retain_store.h"

// A save of the retained file changes records in place, and a process that is killed between two pages of one
// write leaves half a record. So the records that are about to be overwritten are first written behind the
// last one, in short, and closed by a footer: with the footer in place the whole change counts, without it
// nothing of it does. The file is cut behind its records when the change is done; at rest it has no log.

namespace zeb {

using retain_slots = bool[RETAIN_MAX];

// Appends the log of a change to `count` records, of which `changed` tells which, at `offset`, the end of the
// file. False when it could not be written whole; the file may then have bytes behind `offset`.
bool retain_log_write(int fd, int64_t offset, const retain_msg *records, const retain_slots &changed,
                      int count);

// Whether the file of `size` bytes ends in a complete log that leaves *count records. If so, *records are
// brought up to it, and `changed` tells which ones it names. `records` has room for RETAIN_MAX.
bool retain_log_apply(int fd, int64_t size, retain_msg *records, retain_slots &changed, int *count);

}  // namespace zeb

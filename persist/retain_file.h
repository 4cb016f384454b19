#pragma once

#include <sys/types.h>

#include <ctime>

#include "persist/retain_log.h"

// The layout of "retain.dat": a count, then the records as they lie in memory.

namespace zeb {

// What the file is known to hold, so that a save writes the difference only. Guarded by g_persist_mutex.
struct retain_image {
    retain_msg *records = nullptr;  // RETAIN_MAX
    int count = 0;
    bool known = false;
    // The file as the last save left it: somebody may have put another one there, or changed it.
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec changed_at{};
};

// Makes the image what the file holds, and completes an interrupted save in both. When the file cannot be
// written, the save is completed in the image alone, which is then not `known`. Returns whether it is a file
// of retained messages: a count of 1..1000 with as many records behind it. The image of any other is empty.
bool retain_file_read(int fd, retain_image *image);

// Changes the file to the `count` messages of `wanted`, as far as it differs. At whatever step the process
// ends, the file loads, with the messages of before or after. On failure the image is not known any more.
bool retain_file_update(int fd, retain_image *image, const retain_msg *wanted, int count);

}  // namespace zeb

#include "persist/retain_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "persist/persist_file.h"

namespace zeb {

namespace {

constexpr off_t k_count_size = sizeof(uint32_t);

off_t record_offset(int slot) {
    return k_count_size + static_cast<off_t>(slot) * static_cast<off_t>(sizeof(retain_msg));
}

enum class read_result { records, other_file, failed };

read_result read_records(int fd, retain_image *image) {
    uint32_t count = 0;
    const ssize_t head = persist_read_at(fd, &count, sizeof count, 0);
    if (head < 0) return read_result::failed;
    if (head < k_count_size || count < 1 || count > static_cast<uint32_t>(RETAIN_MAX))
        return read_result::other_file;
    const std::size_t size = count * sizeof(retain_msg);
    const ssize_t body = persist_read_at(fd, image->records, size, k_count_size);
    if (body < 0) return read_result::failed;
    if (body < static_cast<ssize_t>(size)) return read_result::other_file;
    image->count = static_cast<int>(count);
    return read_result::records;
}

// One write for each run of changed records.
bool write_records(int fd, const retain_msg *records, const retain_slots &changed, int count) {
    for (int i = 0; i < count;) {
        int end = i;
        while (end < count && changed[end]) ++end;
        const std::size_t size = static_cast<std::size_t>(end - i) * sizeof(retain_msg);
        if (size > 0 && !persist_write_at(fd, &records[i], size, record_offset(i))) return false;
        i = end + 1;
    }
    return true;
}

// The count follows the records that it counts, and nothing is cut before it is clear what remains.
bool write_change(int fd, const retain_msg *records, const retain_slots &changed, int count) {
    const auto stored_count = static_cast<uint32_t>(count);
    return write_records(fd, records, changed, count) &&
           persist_write_at(fd, &stored_count, sizeof stored_count, 0) &&
           persist_truncate(fd, record_offset(count));
}

bool remember_file(int fd, retain_image *image) {
    struct stat info;
    if (fstat(fd, &info) != 0) return false;
    image->device = info.st_dev;
    image->inode = info.st_ino;
    image->size = info.st_size;
    image->changed_at = info.st_mtim;
    image->known = true;
    return true;
}

bool is_remembered(int fd, const retain_image &image) {
    struct stat info;
    return image.known && fstat(fd, &info) == 0 && info.st_dev == image.device &&
           info.st_ino == image.inode && info.st_size == image.size &&
           info.st_mtim.tv_sec == image.changed_at.tv_sec && info.st_mtim.tv_nsec == image.changed_at.tv_nsec;
}

// As they stand in the file, the bytes between the fields included.
bool same_bytes(const retain_msg &a, const retain_msg &b) {
    return std::memcmp(reinterpret_cast<const uint8_t *>(&a), reinterpret_cast<const uint8_t *>(&b),
                       sizeof a) == 0;
}

// Tells which records differ, and whether any of them has a predecessor in the file.
bool compare(const retain_image &image, const retain_msg *wanted, int count, retain_slots &changed) {
    bool overwrites = false;
    for (int i = 0; i < count; ++i) {
        const bool stored = i < image.count;
        changed[i] = !stored || !same_bytes(image.records[i], wanted[i]);
        overwrites = overwrites || (stored && changed[i]);
    }
    return overwrites;
}

// Bytes behind the records are the remains of a save that failed. They would hide the log, whose footer is
// looked for at the end of the file.
bool cut_remains(int fd, int count) {
    struct stat info;
    if (fstat(fd, &info) != 0) return false;
    return info.st_size <= record_offset(count) || persist_truncate(fd, record_offset(count));
}

bool log_change(int fd, const retain_image &image, const retain_msg *wanted, const retain_slots &changed,
                int count) {
    const off_t offset = record_offset(std::max(count, image.count));
    if (cut_remains(fd, image.count) && retain_log_write(fd, offset, wanted, changed, count)) return true;
    (void)cut_remains(fd, image.count);  // the next log does it otherwise
    return false;
}

}  // namespace

bool retain_file_read(int fd, retain_image *image) {
    image->known = false;
    image->count = 0;
    struct stat info;
    if (fstat(fd, &info) != 0) return false;
    const read_result result = read_records(fd, image);
    if (result == read_result::failed) return false;
    const bool accepted = result == read_result::records;
    retain_slots changed{};
    if (accepted && retain_log_apply(fd, info.st_size, image->records, changed, &image->count) &&
        !write_change(fd, image->records, changed, image->count))
        return true;                 // the log stays, and with it the change
    (void)remember_file(fd, image);  // else it is read again before it is changed
    return accepted;
}

bool retain_file_update(int fd, retain_image *image, const retain_msg *wanted, int count) {
    if (!is_remembered(fd, *image)) (void)retain_file_read(fd, image);  // any other file becomes one now
    if (!image->known) return false;  // unreadable, or an earlier save is still not completed
    image->known = false;
    retain_slots changed{};
    const bool overwrites = compare(*image, wanted, count, changed);
    if (overwrites && !log_change(fd, *image, wanted, changed, count)) return false;
    if (!write_change(fd, wanted, changed, count)) {
        // A log completes the change at the next start. Without one no byte of it may stay behind the
        // records.
        if (!overwrites) (void)cut_remains(fd, image->count);
        return false;
    }
    for (int i = 0; i < count; ++i)
        if (changed[i]) std::memcpy(&image->records[i], &wanted[i], sizeof wanted[i]);
    image->count = count;
    (void)remember_file(fd, image);  // else it is read again before it is changed
    return true;
}

}  // namespace zeb

#include "persist/persist_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log/agent_log.h"
#include "log/platform_time.h"
#include "persist/persist.h"
#include "stats/mqtt_stats.h"

namespace zeb {

namespace {

constexpr int k_attempts = 3;
constexpr uint64_t k_attempt_pause_us = 10000;
constexpr mode_t k_file_mode = 0666;
constexpr std::size_t k_path_size = 512;
constexpr std::string_view k_temporary_suffix = ".tmp";
constexpr std::string_view k_temporary_client_suffix = ".json.tmp";

// A signal handler of the application may break off any of these; none of them has done anything then.
template <typename call>
int uninterrupted(call make) {
    for (;;) {
        const int result = make();
        if (result >= 0 || errno != EINTR) return result;
    }
}

int open_regular(int directory, const char *path, int flags) {
    const int fd = uninterrupted(
        [&] { return openat(directory, path, flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, k_file_mode); });
    if (fd < 0) return -1;
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) return fd;
    (void)close(fd);  // nothing was written
    errno = EINVAL;
    return -1;
}

template <typename step>
bool attempt(step try_once) {
    for (int i = 0; i < k_attempts; ++i) {
        if (i > 0) platform_sleep_us(k_attempt_pause_us);
        if (try_once()) return true;
    }
    return false;
}

// Always a file of our own: what lies under the name, a link or a pipe included, is removed, not written to.
int create_temporary(const char *path) {
    const auto create = [&] {
        return uninterrupted(
            [&] { return open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, k_file_mode); });
    };
    const int fd = create();
    if (fd >= 0 || errno != EEXIST || unlink(path) != 0) return fd;
    return create();
}

// The first byte comes last: a temporary file that begins with a byte is complete, whenever the process ends.
bool write_temporary(file_handle *file, std::string_view text) {
    if (!text.empty() && (!persist_write_at(file->get(), text.data() + 1, text.size() - 1, 1) ||
                          !persist_write_at(file->get(), text.data(), 1, 0)))
        return false;
    return persist_sync(file->get()) && file->close();
}

// So that the file has its name after a loss of power, too. Without, the next start finds the old file, or
// the temporary one and finishes the work: no failure is worth a line.
void sync_directory_of(const char *path) {
    char directory[k_path_size];
    const char *end = std::strrchr(path, '/');
    const std::size_t len = end == nullptr ? 0 : static_cast<std::size_t>(end - path);
    if (len >= sizeof directory) return;
    std::memcpy(directory, path, len);
    directory[len] = '\0';
    const char *name = end == nullptr ? "." : len == 0 ? "/" : directory;
    const file_handle file(uninterrupted([&] { return open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (file.valid()) (void)persist_sync(file.get());
}

// Whether the path with the suffix fits. When it does not, `out` holds what a log line can show of it.
bool temporary_path(const char *path, char (&out)[k_path_size + k_temporary_suffix.size()]) {
    const int len = snprintf(out, sizeof out, "%s%s", path, k_temporary_suffix.data());
    return len > 0 && static_cast<std::size_t>(len) < sizeof out;
}

bool is_complete(int directory, const char *name, bool *complete) {
    const file_handle file(open_regular(directory, name, O_RDONLY));
    *complete = false;
    if (!file.valid()) return errno == ELOOP || errno == EINVAL;  // no file of ours
    char first = '\0';
    const ssize_t n = persist_read_at(file.get(), &first, 1, 0);
    *complete = n == 1 && first != '\0';
    return n >= 0;
}

void finish_write(int directory, const char *temporary) {
    char name[NAME_MAX + 1];
    const std::size_t len = std::strlen(temporary) - k_temporary_suffix.size();
    std::memcpy(name, temporary, len);
    name[len] = '\0';
    struct stat info;
    bool complete = false;
    const bool gone = fstatat(directory, name, &info, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
    if (gone && !is_complete(directory, temporary, &complete)) {
        ZEB_LOG(AGENT_LOG_WARN, "[persist] cannot read an interrupted write: %s, errno=%d", temporary, errno);
        return;
    }
    if (complete && renameat(directory, temporary, directory, name) == 0) {
        ZEB_LOG(AGENT_LOG_INFO, "[persist] interrupted write finished: %s", name);
        return;
    }
    if (complete || unlinkat(directory, temporary, 0) != 0)
        ZEB_LOG(AGENT_LOG_WARN, "[persist] cannot settle an interrupted write: %s, errno=%d", temporary,
                errno);
}

}  // namespace

int persist_open(const char *path, int flags) {
    return open_regular(AT_FDCWD, path, flags);
}

bool persist_sync(int fd) {
    return uninterrupted([&] { return fsync(fd); }) == 0;
}

bool persist_truncate(int fd, off_t size) {
    return uninterrupted([&] { return ftruncate(fd, size); }) == 0;
}

ssize_t persist_read_at(int fd, void *data, std::size_t size, off_t offset) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n =
            pread(fd, static_cast<char *>(data) + done, size - done, offset + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

bool persist_write_at(int fd, const void *data, std::size_t size, off_t offset) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = pwrite(fd, static_cast<const char *>(data) + done, size - done,
                                 offset + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

void file_text::read(const char *path, std::size_t limit) {
    const file_handle file(persist_open(path, O_RDONLY));
    if (!file.valid()) {
        failed_ = errno != ENOENT && errno != ENOTDIR && errno != ELOOP && errno != EINVAL;
        if (failed_) ZEB_LOG(AGENT_LOG_ERROR, "[persist] cannot open: %s, errno=%d", path, errno);
        return;
    }
    opened_ = true;
    struct stat info;
    if (fstat(file.get(), &info) == 0) limit = std::min(limit, static_cast<std::size_t>(info.st_size));
    data_ = static_cast<char *>(std::malloc(limit + 1));
    if (data_ == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[persist] 内存分配失败");
        failed_ = true;
        return;
    }
    const ssize_t n = persist_read_at(file.get(), data_, limit, 0);
    if (n < 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "[persist] cannot read: %s, errno=%d", path, errno);
        failed_ = true;
        return;
    }
    len_ = strnlen(data_, static_cast<std::size_t>(n));
}

void persist_safe_write(const char *path, const char *text) {
    (void)persist_replace_file(path, text);  // has reported its failure
}

bool persist_replace_file(const char *path, const char *text) {
    if (path == nullptr || *path == '\0' || text == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[persist] 安全写入失败：参数为空");
        return false;
    }
    char temporary[k_path_size + k_temporary_suffix.size()];
    int fd = -1;
    if (!temporary_path(path, temporary) ||
        !attempt([&] { return (fd = create_temporary(temporary)) >= 0; })) {
        ZEB_LOG(AGENT_LOG_ERROR, "[persist] 写入临时文件失败(重试%d次): %s", k_attempts, temporary);
        return false;
    }
    file_handle file(fd);
    if (!write_temporary(&file, text)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[persist] write failed, the old file stays: %s, errno=%d", path, errno);
        (void)unlink(temporary);  // the next start removes it otherwise
        return false;
    }
    (void)attempt([&] { return unlink(path) == 0; });  // usually there is none; the rename tells
    if (attempt([&] { return rename(temporary, path) == 0; })) {
        sync_directory_of(path);
        mqtt_stats_inc_persist_write();
        return true;
    }
    ZEB_LOG(AGENT_LOG_ERROR, "[persist] 重命名失败: %s", path);
    (void)unlink(temporary);
    return false;
}

void persist_remove_file(const char *path) {
    char temporary[k_path_size + k_temporary_suffix.size()];
    (void)unlink(path);
    if (temporary_path(path, temporary)) (void)unlink(temporary);
}

void persist_finish_writes(const char *directory) {
    DIR *dir = opendir(directory);
    if (dir == nullptr) return;  // the restore reports a missing directory
    while (const dirent *entry = readdir(dir)) {
        if (std::string_view(entry->d_name).ends_with(k_temporary_client_suffix))
            finish_write(dirfd(dir), entry->d_name);
    }
    (void)closedir(dir);
}

}  // namespace zeb

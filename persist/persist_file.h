#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string_view>

// Files as the module uses them: opened close-on-exec, never through a symbolic link in the last place, never
// anything but a regular file (a named pipe would block its reader for ever).

namespace zeb {

class file_handle {
  public:
    explicit file_handle(int fd) : fd_(fd) {}
    ~file_handle() {
        if (fd_ >= 0) (void)close();  // whoever cares has closed it
    }
    file_handle(const file_handle &) = delete;
    file_handle &operator=(const file_handle &) = delete;

    bool valid() const { return fd_ >= 0; }
    int get() const { return fd_; }
    bool close() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }

  private:
    int fd_;
};

// The descriptor of a regular file, or -1 with errno. `flags` as for open; O_CREAT files get the mode that
// the umask leaves of 0666.
int persist_open(const char *path, int flags);
// As many bytes as there are, up to `size`; -1 with errno. Interrupted and partial calls are continued.
ssize_t persist_read_at(int fd, void *data, std::size_t size, off_t offset);
bool persist_write_at(int fd, const void *data, std::size_t size, off_t offset);
bool persist_sync(int fd);
bool persist_truncate(int fd, off_t size);

class file_text {
  public:
    file_text() = default;
    ~file_text() { std::free(data_); }
    file_text(const file_text &) = delete;
    file_text &operator=(const file_text &) = delete;

    // Reads up to `limit` bytes of the file, or up to its first NUL. What cannot be read is empty.
    void read(const char *path, std::size_t limit);

    bool opened() const { return opened_; }
    bool failed() const { return failed_; }  // it may be there, but its content is not known
    std::string_view text() const { return {data_, len_}; }

  private:
    char *data_ = nullptr;
    std::size_t len_ = 0;
    bool opened_ = false;
    bool failed_ = false;
};

// persist_safe_write, which tells as well whether the file has the text now.
bool persist_replace_file(const char *path, const char *text);

// Remove a file, often there is none, and what a failed write of it may have left: the next start would take
// that for its newest state.
void persist_remove_file(const char *path);

// Settles what a crash has left in a directory: a complete temporary file whose file is gone takes its place,
// every other temporary file is removed.
void persist_finish_writes(const char *directory);

}  // namespace zeb

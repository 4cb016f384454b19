#pragma once

// Memory that runs out on demand: the linker (--wrap) puts these functions before the C and C++ run-time's
// for everything in the program, and each does the real thing until it is told to fail. What they have handed
// out and not got back is known by name, so that a block that is lost shows without a sanitizer.

#include <dirent.h>
#include <sys/mman.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <mutex>
#include <new>

namespace zeb_test {

class failing_memory {
  public:
    static constexpr int k_never = INT_MAX;

    // Lets `passing` requests pass, then refuses one, or all that follow.
    void arm(int passing, bool for_good) {
        const std::lock_guard guard(lock_);
        passing_ = passing;
        for_good_ = for_good;
        requests_ = 0;
    }
    // Returns how many requests there were since arm.
    int disarm() {
        const std::lock_guard guard(lock_);
        passing_ = k_never;
        return requests_;
    }
    bool refuses() {
        const std::lock_guard guard(lock_);
        if (passing_ == k_never) return false;
        const int request = requests_++;
        const bool refused = for_good_ ? request >= passing_ : request == passing_;
        if (refused) errno = ENOMEM;
        return refused;
    }
    template <typename T>
    T *given(T *block) {
        const std::lock_guard guard(lock_);
        if (block == nullptr) return block;
        int place = 0;
        while (place < used_ && blocks_[place] != nullptr) ++place;
        if (place == k_room) return block;
        blocks_[place] = block;
        if (place == used_) ++used_;
        ++live_;
        return block;
    }
    void taken_back(const void *block) {
        const std::lock_guard guard(lock_);
        for (int place = 0; block != nullptr && place < used_; ++place) {
            if (blocks_[place] != block) continue;
            blocks_[place] = nullptr;
            --live_;
            return;
        }
    }
    // Blocks that are out at the moment.
    int live() {
        const std::lock_guard guard(lock_);
        return live_;
    }

  private:
    static constexpr int k_room = 16384;

    std::mutex lock_;  // guards all below
    int passing_ = k_never;
    bool for_good_ = false;
    int requests_ = 0;
    const void *blocks_[k_room] = {};
    int used_ = 0;
    int live_ = 0;
};

inline failing_memory g_memory;

}  // namespace zeb_test

extern "C" {

void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
void *__real_realloc(void *, size_t);
void __real_free(void *);
void *__real_mmap(void *, size_t, int, int, int, off_t);
int __real_munmap(void *, size_t);
FILE *__real_fopen(const char *, const char *);
DIR *__real_opendir(const char *);
// operator new and new[] without exceptions, operator delete and delete[] with and without a size; with an
// alignment as far as the library has types that ask for one
void *__real__ZnwmRKSt9nothrow_t(size_t, const std::nothrow_t &);
void *__real__ZnamRKSt9nothrow_t(size_t, const std::nothrow_t &);
void *__real__ZnwmSt11align_val_tRKSt9nothrow_t(size_t, std::align_val_t, const std::nothrow_t &);
void __real__ZdlPvmSt11align_val_t(void *, size_t, std::align_val_t);
void __real__ZdlPv(void *);
void __real__ZdlPvm(void *, size_t);
void __real__ZdaPv(void *);
void __real__ZdaPvm(void *, size_t);

void *__wrap_malloc(size_t size) {
    return zeb_test::g_memory.refuses() ? nullptr : zeb_test::g_memory.given(__real_malloc(size));
}
void *__wrap_calloc(size_t n, size_t size) {
    return zeb_test::g_memory.refuses() ? nullptr : zeb_test::g_memory.given(__real_calloc(n, size));
}
void *__wrap_realloc(void *block, size_t size) {
    if (zeb_test::g_memory.refuses()) return nullptr;
    zeb_test::g_memory.taken_back(block);
    return zeb_test::g_memory.given(__real_realloc(block, size));
}
void __wrap_free(void *block) {
    zeb_test::g_memory.taken_back(block);
    __real_free(block);
}
void *__wrap_mmap(void *at, size_t size, int protection, int flags, int fd, off_t offset) {
    if (zeb_test::g_memory.refuses()) return MAP_FAILED;
    void *const block = __real_mmap(at, size, protection, flags, fd, offset);
    if (block != MAP_FAILED) zeb_test::g_memory.given(block);
    return block;
}
int __wrap_munmap(void *block, size_t size) {
    zeb_test::g_memory.taken_back(block);
    return __real_munmap(block, size);
}
// These two need memory as well.
FILE *__wrap_fopen(const char *path, const char *mode) {
    return zeb_test::g_memory.refuses() ? nullptr : __real_fopen(path, mode);
}
DIR *__wrap_opendir(const char *path) {
    return zeb_test::g_memory.refuses() ? nullptr : __real_opendir(path);
}
void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &tag) {
    return zeb_test::g_memory.refuses() ? nullptr
                                        : zeb_test::g_memory.given(__real__ZnwmRKSt9nothrow_t(size, tag));
}
void *__wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &tag) {
    return zeb_test::g_memory.refuses() ? nullptr
                                        : zeb_test::g_memory.given(__real__ZnamRKSt9nothrow_t(size, tag));
}
void *__wrap__ZnwmSt11align_val_tRKSt9nothrow_t(size_t size, std::align_val_t alignment,
                                                const std::nothrow_t &tag) {
    if (zeb_test::g_memory.refuses()) return nullptr;
    return zeb_test::g_memory.given(__real__ZnwmSt11align_val_tRKSt9nothrow_t(size, alignment, tag));
}
void __wrap__ZdlPvmSt11align_val_t(void *block, size_t size, std::align_val_t alignment) {
    zeb_test::g_memory.taken_back(block);
    __real__ZdlPvmSt11align_val_t(block, size, alignment);
}
void __wrap__ZdlPv(void *block) {
    zeb_test::g_memory.taken_back(block);
    __real__ZdlPv(block);
}
void __wrap__ZdlPvm(void *block, size_t size) {
    zeb_test::g_memory.taken_back(block);
    __real__ZdlPvm(block, size);
}
void __wrap__ZdaPv(void *block) {
    zeb_test::g_memory.taken_back(block);
    __real__ZdaPv(block);
}
void __wrap__ZdaPvm(void *block, size_t size) {
    zeb_test::g_memory.taken_back(block);
    __real__ZdaPvm(block, size);
}

}  // extern "C"

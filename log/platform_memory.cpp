#include "log/platform_memory.h"

#include <sys/mman.h>

#include <cstdlib>

namespace zeb {

// Sanitized builds take the heap: it has guard zones, and the leak checker looks into it.
#if defined(__SANITIZE_ADDRESS__)
#define ZEB_ZERO_PAGES_FROM_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZEB_ZERO_PAGES_FROM_HEAP 1
#endif
#endif

#ifdef ZEB_ZERO_PAGES_FROM_HEAP

void *platform_zero_alloc(std::size_t size) {
    return std::calloc(1, size);
}

void platform_zero_free(void *block, std::size_t) {
    std::free(block);
}

#else

void *platform_zero_alloc(std::size_t size) {
    void *block =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return block == MAP_FAILED ? nullptr : block;
}

void platform_zero_free(void *block, std::size_t size) {
    if (block != nullptr) (void)munmap(block, size);  // fails only for a block that is not ours
}

#endif

}  // namespace zeb

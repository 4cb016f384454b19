#pragma once

#include <cstddef>

namespace zeb {

// A large zero-filled block for tables that are mostly never touched: pages that nobody writes cost nothing,
// also after a restart of the broker, when the C library's calloc would hand out (and clear) recycled memory.
// Returns null when there is no memory; release with platform_zero_free and the same size.
void *platform_zero_alloc(std::size_t size);
void platform_zero_free(void *block, std::size_t size);

}  // namespace zeb

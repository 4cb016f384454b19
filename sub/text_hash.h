#pragma once

#include <cstdint>

namespace zeb {

// FNV-1a, for the side tables of this folder. Chained calls hash several texts into one value.
inline constexpr uint32_t TEXT_HASH_START = 2166136261u;

inline uint32_t text_hash_byte(uint32_t h, char c) {
    return (h ^ static_cast<unsigned char>(c)) * 16777619u;
}

inline uint32_t text_hash(const char *text, uint32_t h = TEXT_HASH_START) {
    for (; *text != '\0'; ++text) h = text_hash_byte(h, *text);
    return h;
}

}  // namespace zeb

#pragma once

#include <cstdint>

namespace zeb {

// The hash of a client identifier that places a client in its tables. Bytes count as signed, so that the
// value of an identifier beyond ASCII is the same on every processor. The empty identifier has 0.
inline uint32_t cid_hash(const char *client_id) {
    uint32_t h = 0;
    for (; *client_id != '\0'; ++client_id)
        h = h * 31 + static_cast<uint32_t>(static_cast<signed char>(*client_id));
    return h;
}

}  // namespace zeb

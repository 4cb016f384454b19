#pragma once

#include <cstdint>

namespace zeb_test {

// Bytes that a TCP socket has sent, each counted once, and that its kernel has received, whether they were
// read or not; 0 when it cannot be told.
uint64_t tcp_bytes_sent(int fd);
uint64_t tcp_bytes_received(int fd);

}  // namespace zeb_test

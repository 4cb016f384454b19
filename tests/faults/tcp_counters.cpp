#include "tests/faults/tcp_counters.h"

// Not <netinet/tcp.h>, whose record of the same name ends before these counters.
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace zeb_test {

namespace {

tcp_info read_info(int fd) {
    tcp_info info{};
    socklen_t len = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0) return {};
    return info;
}

}  // namespace

uint64_t tcp_bytes_sent(int fd) {
    const tcp_info info = read_info(fd);
    return info.tcpi_bytes_sent - info.tcpi_bytes_retrans;
}

uint64_t tcp_bytes_received(int fd) {
    return read_info(fd).tcpi_bytes_received;
}

}  // namespace zeb_test

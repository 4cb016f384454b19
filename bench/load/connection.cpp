#include "connection.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "clock.h"

namespace zeb_load {

namespace {

uint32_t interest(const connection &c) {
    return (c.reads ? uint32_t{EPOLLIN} : 0) | (c.wants_output ? uint32_t{EPOLLOUT} : 0);
}

bool would_block() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

// -1 when the connection is broken, else how much the socket took.
ssize_t send_some(int fd, const uint8_t *bytes, size_t size) {
    const ssize_t sent = ::send(fd, bytes, size, MSG_NOSIGNAL);
    if (sent >= 0) return sent;
    return would_block() ? 0 : -1;
}

}  // namespace

poller::poller() : fd_(epoll_create1(EPOLL_CLOEXEC)) {}

poller::~poller() {
    if (fd_ >= 0) (void)::close(fd_);  // nothing to be done about it
}

bool poller::add(connection &c) {
    epoll_event event{};
    event.events = interest(c);
    event.data.ptr = &c;
    return epoll_ctl(fd_, EPOLL_CTL_ADD, c.fd, &event) == 0;
}

void poller::watch(connection &c, bool input, bool output) {
    if (c.reads == input && c.wants_output == output) return;
    c.reads = input;
    c.wants_output = output;
    epoll_event event{};
    event.events = interest(c);
    event.data.ptr = &c;
    (void)epoll_ctl(fd_, EPOLL_CTL_MOD, c.fd, &event);  // cannot fail for a descriptor that was added
}

void poller::close(connection &c) {
    if (c.fd < 0) return;
    (void)epoll_ctl(fd_, EPOLL_CTL_DEL, c.fd, nullptr);  // was never added when connecting failed at once
    (void)::close(c.fd);
    c.fd = -1;
}

std::span<epoll_event> poller::wait(uint64_t timeout_ns) {
    timespec timeout{};
    timeout.tv_sec = static_cast<time_t>(timeout_ns / k_ns_per_s);
    timeout.tv_nsec = static_cast<long>(timeout_ns % k_ns_per_s);
    int count = epoll_pwait2(fd_, events_, k_events, &timeout, nullptr);
    // Kernels before 5.11 know milliseconds only.
    if (count < 0 && errno == ENOSYS)
        count = epoll_wait(fd_, events_, k_events,
                           static_cast<int>((timeout_ns + k_ns_per_ms - 1) / k_ns_per_ms));
    return {events_, static_cast<size_t>(std::max(count, 0))};
}

bool send_bytes(poller &poll, connection &c, const uint8_t *bytes, size_t size) {
    size_t sent = 0;
    if (c.unsent.empty()) {
        const ssize_t taken = send_some(c.fd, bytes, size);
        if (taken < 0) return false;
        sent = static_cast<size_t>(taken);
        if (sent == size) return true;
    }
    c.unsent.insert(c.unsent.end(), bytes + sent, bytes + size);
    poll.watch(c, c.reads, true);
    return true;
}

bool flush(poller &poll, connection &c) {
    if (!c.unsent.empty()) {
        const ssize_t taken = send_some(c.fd, c.unsent.data(), c.unsent.size());
        if (taken < 0) return false;
        c.unsent.erase(c.unsent.begin(), c.unsent.begin() + taken);
    }
    poll.watch(c, c.reads, !c.unsent.empty());
    return true;
}

receive_buffer::result receive_buffer::receive(connection &c, const uint8_t *&begin, const uint8_t *&end,
                                               size_t limit) {
    uint8_t *middle = bytes_.data() + head_;
    const ssize_t got = recv(c.fd, middle, std::min(limit, k_receive_bytes), 0);
    if (got < 0 && would_block()) return result::nothing;
    if (got <= 0) return result::closed;
    const size_t left_over = c.partial.size();
    if (left_over > 0) memcpy(middle - left_over, c.partial.data(), left_over);
    begin = middle - left_over;
    end = middle + got;
    return result::some;
}

bool receive_buffer::keep(connection &c, const uint8_t *begin, const uint8_t *end) const {
    const size_t left_over = static_cast<size_t>(end - begin);
    if (left_over > head_) return false;
    c.partial.assign(begin, end);
    return true;
}

bool resolve(const char *host, uint16_t port, endpoint &out) {
    char service[8];
    (void)snprintf(service, sizeof service, "%u", static_cast<unsigned>(port));
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (getaddrinfo(host, service, &hints, &found) != 0 || found == nullptr) return false;
    memcpy(&out.address, found->ai_addr, found->ai_addrlen);
    out.size = found->ai_addrlen;
    freeaddrinfo(found);
    return true;
}

bool start_connect(connection &c, const endpoint &to, int receive_bytes) {
    c.fd = socket(to.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (c.fd < 0) return false;
    const int on = 1;
    bool fine = setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0;
    if (receive_bytes > 0)
        fine = setsockopt(c.fd, SOL_SOCKET, SO_RCVBUF, &receive_bytes, sizeof receive_bytes) == 0 && fine;
    fine = fine && (connect(c.fd, reinterpret_cast<const sockaddr *>(&to.address), to.size) == 0 ||
                    errno == EINPROGRESS);
    if (fine) return true;
    const int reason = errno;
    (void)::close(c.fd);
    c.fd = -1;
    errno = reason;
    return false;
}

}  // namespace zeb_load

#pragma once

// Replacements for system calls, put before the library's by the linker (--wrap). Each does the real thing
// until it is told to fail.

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace zeb_test {

// Lets `skip` calls pass, then makes `times` calls fail with `error`.
struct fault {
    std::atomic<int> skip{0};
    std::atomic<int> times{0};
    std::atomic<int> error{0};

    void arm(int code, int n = 1, int passing = 0) {
        error = code;
        skip = passing;
        times = n;
    }
    void disarm() { times = 0; }
    bool strikes() {
        if (times.load() <= 0) return false;
        if (skip.load() > 0) {
            --skip;
            return false;
        }
        --times;
        errno = error;
        return true;
    }
};

inline fault g_pthread_create, g_calloc, g_socket, g_listen, g_epoll_create1, g_epoll_ctl, g_epoll_wait,
    g_eventfd, g_accept4, g_send;
inline std::atomic<size_t> g_send_at_most{SIZE_MAX};  // cuts every send short
inline std::atomic<int> g_epoll_ctl_op{0};            // the operation that g_epoll_ctl is about

}  // namespace zeb_test

extern "C" {

int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
void *__real_calloc(size_t, size_t);
int __real_socket(int, int, int);
int __real_listen(int, int);
int __real_epoll_create1(int);
int __real_epoll_ctl(int, int, int, epoll_event *);
int __real_epoll_wait(int, epoll_event *, int, int);
int __real_eventfd(unsigned, int);
int __real_accept4(int, sockaddr *, socklen_t *, int);
ssize_t __real_send(int, const void *, size_t, int);

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*entry)(void *), void *arg) {
    if (zeb_test::g_pthread_create.strikes()) return errno;
    return __real_pthread_create(thread, attr, entry, arg);
}
void *__wrap_calloc(size_t n, size_t size) {
    return zeb_test::g_calloc.strikes() ? nullptr : __real_calloc(n, size);
}
int __wrap_socket(int family, int type, int protocol) {
    return zeb_test::g_socket.strikes() ? -1 : __real_socket(family, type, protocol);
}
int __wrap_listen(int fd, int backlog) {
    return zeb_test::g_listen.strikes() ? -1 : __real_listen(fd, backlog);
}
int __wrap_epoll_create1(int flags) {
    return zeb_test::g_epoll_create1.strikes() ? -1 : __real_epoll_create1(flags);
}
int __wrap_epoll_ctl(int epoll_fd, int op, int fd, epoll_event *event) {
    if (op == zeb_test::g_epoll_ctl_op.load() && zeb_test::g_epoll_ctl.strikes()) return -1;
    return __real_epoll_ctl(epoll_fd, op, fd, event);
}
int __wrap_epoll_wait(int epoll_fd, epoll_event *events, int size, int timeout) {
    return zeb_test::g_epoll_wait.strikes() ? -1 : __real_epoll_wait(epoll_fd, events, size, timeout);
}
int __wrap_eventfd(unsigned value, int flags) {
    return zeb_test::g_eventfd.strikes() ? -1 : __real_eventfd(value, flags);
}
int __wrap_accept4(int fd, sockaddr *address, socklen_t *len, int flags) {
    return zeb_test::g_accept4.strikes() ? -1 : __real_accept4(fd, address, len, flags);
}
ssize_t __wrap_send(int fd, const void *data, size_t len, int flags) {
    if (zeb_test::g_send.strikes()) return -1;
    const size_t most = zeb_test::g_send_at_most.load();
    return __real_send(fd, data, len < most ? len : most, flags);
}

}  // extern "C"

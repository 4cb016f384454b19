#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log/agent_log.h"
#include "netip/netip.h"
#include "tests/support/bytes.h"

namespace zeb_test {

constexpr std::chrono::seconds k_deadline{20};

// The tests ask for the log where they look at it; anywhere else it would only slow them down.
inline const bool k_log_is_quiet = (zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL), true);

struct event {
    uint32_t handle;
    uint32_t kind;
    bytes data;
    uint32_t reason;
    uint32_t error;
};

// The callback of the tests: keeps every event and lets a hook answer it.
class recorder {
  public:
    using hook_fn = std::function<int(const event &)>;

    explicit recorder(hook_fn hook = nullptr) : hook_(std::move(hook)) {}

    static int on_event(uint32_t handle, uint32_t kind, const uint8_t *data, uint32_t len, uint32_t reason,
                        uint32_t error, void *arg) {
        auto *self = static_cast<recorder *>(arg);
        const event e{handle, kind, data == nullptr ? bytes() : bytes(data, data + len), reason, error};
        hook_fn hook;
        {
            std::lock_guard guard(self->lock_);
            self->events_.push_back(e);
            hook = self->hook_;
        }
        self->changed_.notify_all();
        return hook ? hook(e) : 1;
    }

    // Replaces the hook; calls that are under way may still reach the one before.
    void set_hook(hook_fn hook) {
        std::lock_guard guard(lock_);
        hook_ = std::move(hook);
    }

    std::vector<event> events() const {
        std::lock_guard guard(lock_);
        return events_;
    }
    std::vector<event> events(uint32_t kind) const {
        std::vector<event> out;
        for (const event &e : events())
            if (e.kind == kind) out.push_back(e);
        return out;
    }
    size_t count(uint32_t kind) const { return events(kind).size(); }

    bool wait_for(uint32_t kind, size_t n, std::chrono::milliseconds limit = k_deadline) {
        std::unique_lock guard(lock_);
        return changed_.wait_for(guard, limit, [&] {
            size_t found = 0;
            for (const event &e : events_) found += e.kind == kind ? 1 : 0;
            return found >= n;
        });
    }
    bool wait_connects(size_t n) { return wait_for(zeb::NETIP_EVENT_CONNECT, n); }
    bool wait_disconnects(size_t n) { return wait_for(zeb::NETIP_EVENT_DISCONNECT, n); }
    bool wait_data(size_t n) { return wait_for(zeb::NETIP_EVENT_DATA, n); }

  private:
    hook_fn hook_;
    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::vector<event> events_;
};

inline sockaddr_in broker_address() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(zeb::NETIP_PORT);
    return address;
}

// A TCP client that speaks raw bytes; small_buffer keeps its receive window small. (Not tiny: a window below
// one segment makes the kernel wait 200 ms for each.)
class tcp_client {
  public:
    struct unconnected {};

    explicit tcp_client(unconnected, bool small_buffer = false)
        : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int size = 65536;
        if (small_buffer) {
            EXPECT_EQ(0, setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size));
        }
        const int on = 1;
        EXPECT_EQ(0, setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
    }
    explicit tcp_client(bool small_buffer = false) : tcp_client(unconnected{}, small_buffer) { connect(); }
    ~tcp_client() { close(); }
    tcp_client(tcp_client &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    tcp_client(const tcp_client &) = delete;
    tcp_client &operator=(const tcp_client &) = delete;

    void connect() {
        const sockaddr_in address = broker_address();
        EXPECT_EQ(0, ::connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    void reset() {  // a close that the broker sees as an error
        const linger hard{1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        close();
    }
    bool send(const bytes &data) {
        size_t done = 0;
        while (done < data.size()) {
            const ssize_t n = ::send(fd_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }
    bool send(std::string_view text) { return send(hex(text)); }
    // Exactly n bytes, fewer when the broker closed or the deadline passed.
    bytes read(size_t n) {
        bytes out;
        while (out.size() < n && readable(k_deadline)) {
            uint8_t chunk[8192];
            const ssize_t got = recv(fd_, chunk, std::min(sizeof chunk, n - out.size()), 0);
            if (got <= 0) break;
            out.insert(out.end(), chunk, chunk + got);
        }
        return out;
    }
    bool readable(std::chrono::milliseconds limit) {
        pollfd wanted{fd_, POLLIN, 0};
        return poll(&wanted, 1, static_cast<int>(limit.count())) == 1;
    }
    // An orderly end of the stream, not a reset.
    bool at_end() {
        uint8_t byte;
        return readable(k_deadline) && recv(fd_, &byte, 1, 0) == 0;
    }
    bool closed_somehow() {
        uint8_t byte;
        return readable(k_deadline) && recv(fd_, &byte, 1, 0) <= 0;
    }
    uint16_t port() const { return local_port(fd_); }
    int fd() const { return fd_; }

    static uint16_t local_port(int fd) {
        sockaddr_in address{};
        socklen_t len = sizeof address;
        EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr *>(&address), &len));
        return ntohs(address.sin_port);
    }

  private:
    int fd_;
};

class udp_client {
  public:
    udp_client() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in address = broker_address();
        EXPECT_EQ(0, connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    }
    ~udp_client() { close(fd_); }
    udp_client(const udp_client &) = delete;
    udp_client &operator=(const udp_client &) = delete;

    bool send(const bytes &data) {
        return ::send(fd_, data.data(), data.size(), 0) == static_cast<ssize_t>(data.size());
    }
    bool send(std::string_view text) { return send(hex(text)); }
    bytes receive() {
        pollfd wanted{fd_, POLLIN, 0};
        if (poll(&wanted, 1, std::chrono::milliseconds(k_deadline).count()) != 1) return {};
        bytes data(65536);
        const ssize_t got = recv(fd_, data.data(), data.size(), 0);
        data.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return data;
    }
    uint16_t port() const { return tcp_client::local_port(fd_); }

  private:
    int fd_;
};

// The module, up while this lives.
class running_netip {
  public:
    explicit running_netip(recorder &r, int io_threads = 1) {
        EXPECT_EQ(zeb::NETIP_OK, zeb::netip_init(recorder::on_event, &r, io_threads));
    }
    ~running_netip() { zeb::netip_deinit(); }
    running_netip(const running_netip &) = delete;
    running_netip &operator=(const running_netip &) = delete;
};

template <typename condition>
bool eventually(condition holds) {
    const auto end = std::chrono::steady_clock::now() + k_deadline;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

inline bool is_in_use(uint32_t h) {
    return zeb::g_netip_clients[h].in_use.load() != 0;
}

// The broker's socket of a connection.
inline int socket_of(uint32_t h) {
    std::lock_guard guard(zeb::g_netip_clients[h].lock);
    return zeb::g_netip_clients[h].fd;
}

inline int next_free_handle_from(uint32_t start) {
    std::lock_guard guard(zeb::g_netip_lock);
    zeb::g_last_handle = start;
    return zeb::netip_get_free_handle();
}

// Marks slots as taken without connections, and frees them again.
class occupied_slots {
  public:
    occupied_slots(uint32_t first, uint32_t last) : first_(first), last_(last) { mark(1); }
    ~occupied_slots() { mark(0); }
    occupied_slots(const occupied_slots &) = delete;
    occupied_slots &operator=(const occupied_slots &) = delete;

  private:
    void mark(uint8_t value) {
        std::lock_guard guard(zeb::g_netip_lock);
        for (uint32_t i = first_; i <= last_; ++i) zeb::g_netip_clients[i].in_use.store(value);
    }
    uint32_t first_;
    uint32_t last_;
};

inline size_t entries_of(const char *path) {
    size_t count = 0;
    DIR *dir = opendir(path);
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
}

inline size_t open_descriptors() {
    return entries_of("/proc/self/fd");
}

// A thread that has been joined may stand in /proc for a moment yet; the kernel's flags tell it is leaving.
inline size_t running_threads() {
    constexpr unsigned long k_exiting = 0x4;
    size_t count = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "stat");
        std::string stat;
        if (!std::getline(file, stat)) continue;  // gone since it was listed
        std::istringstream fields(stat.substr(stat.rfind(')') + 1));
        std::string word;
        for (int skipped = 0; skipped < 6; ++skipped) fields >> word;  // the state and five numbers
        unsigned long flags = 0;
        fields >> flags;
        if ((flags & k_exiting) == 0) ++count;
    }
    return count;
}

// A PUBLISH-like packet of exactly `total` bytes whose payload tells its position from its seed.
inline bytes packet_of(size_t total, uint8_t seed = 0) {
    bytes out{0x30};
    size_t body = total - 2;
    while (body >= 128 && total - body < 5) {
        const size_t length_bytes = body < 128 ? 1 : body < 16384 ? 2 : 3;
        if (total - 1 - length_bytes == body) break;
        body = total - 1 - length_bytes;
    }
    size_t left = body;
    do {
        out.push_back(static_cast<uint8_t>(left % 128 + (left >= 128 ? 128 : 0)));
        left /= 128;
    } while (left > 0);
    while (out.size() < total) out.push_back(static_cast<uint8_t>(out.size() * 7 + seed));
    return out;
}

inline bytes operator+(bytes a, const bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

}  // namespace zeb_test

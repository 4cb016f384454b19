#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "tests/client/mqtt_peer.h"

namespace zeb_test {

// A client of a program full of signals: every system call may be interrupted, and goes on where it was.
class steady_client {
  public:
    explicit steady_client(const std::string &id) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in address = broker_address();
        const auto *peer = reinterpret_cast<const sockaddr *>(&address);
        // An interrupted connect goes on by itself, and is heard of through poll.
        if (connect(fd_, peer, sizeof address) != 0 && errno == EINTR) (void)await(POLLOUT);
        answered_ = send(connect_packet(id)) && read() == bytes{0x20, 2, 0, 0};
    }
    ~steady_client() { close(fd_); }
    steady_client(const steady_client &) = delete;
    steady_client &operator=(const steady_client &) = delete;

    bool was_accepted() const { return answered_; }
    bool send(const bytes &data) {
        size_t done = 0;
        while (done < data.size()) {
            const ssize_t n = ::send(fd_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }
    // One packet of less than 130 bytes; empty at the end of the stream or of patience.
    bytes read() {
        bytes packet(2);
        if (!fill(&packet, 0) || packet[1] > 0x7F) return {};
        packet.resize(2u + packet[1]);
        return fill(&packet, 2) ? packet : bytes{};
    }
    bool is_served() { return send({0xC0, 0}) && read() == bytes{0xD0, 0}; }

  private:
    bool await(short events) {
        const auto end = std::chrono::steady_clock::now() + k_deadline;
        pollfd wanted{fd_, events, 0};
        while (std::chrono::steady_clock::now() < end)
            if (poll(&wanted, 1, 100) == 1) return true;
        return false;
    }
    bool fill(bytes *packet, size_t from) {
        while (from < packet->size()) {
            if (!await(POLLIN)) return false;
            const ssize_t got = recv(fd_, packet->data() + from, packet->size() - from, 0);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return false;
            from += static_cast<size_t>(got);
        }
        return true;
    }

    int fd_;
    bool answered_ = false;
};

}  // namespace zeb_test

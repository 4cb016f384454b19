#pragma once

#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "netip/netip_internal.h"
#include "tests/client/mqtt_peer.h"
#include "tests/faults/tcp_counters.h"

namespace zeb_test {

// A client that keeps what it receives, acknowledges messages by itself, and never waits for an answer: what
// the broker has done by now is known from a witness, another connection whose pings are answered in order.
class scripted_client {
  public:
    scripted_client() = default;

    // Returns once the broker has taken the connection in.
    void open() {
        tcp_ = std::make_unique<tcp_client>();
        ended_ = false;
        pending_.clear();
        EXPECT_TRUE(eventually([&] { return broker_socket() >= 0; }));
    }
    bool is_open() const { return tcp_ != nullptr && !ended_; }
    void send(const bytes &packet) {
        if (is_open() && !tcp_->send(packet)) ended_ = true;
    }
    void close() { tcp_.reset(); }
    void reset() {
        if (tcp_ != nullptr) tcp_->reset();
        tcp_.reset();
    }

    // Until the kernel has carried over what was sent, either way. It need not have when send returns, and
    // what another connection hears says nothing about this one.
    void await_delivery() {
        if (!is_open()) return;
        const auto delivered = [&] {
            const int fd = broker_socket();
            return fd < 0 || (tcp_bytes_received(fd) >= tcp_bytes_sent(tcp_->fd()) &&
                              tcp_bytes_received(tcp_->fd()) >= tcp_bytes_sent(fd));
        };
        EXPECT_TRUE(eventually(delivered));
    }

    // Takes what has come and acknowledges it; false when nothing has.
    bool take() {
        if (!is_open()) return false;
        uint8_t chunk[8192];
        ssize_t got = 0;
        bool any = false;
        while ((got = recv(tcp_->fd(), chunk, sizeof chunk, MSG_DONTWAIT)) > 0) {
            pending_.insert(pending_.end(), chunk, chunk + got);
            any = true;
        }
        if (got == 0 || (got < 0 && errno != EAGAIN)) ended_ = true;
        while (take_packet()) {
        }
        return any;
    }

    // Whole packets, without their identifiers: those differ from run to run.
    const std::vector<std::string> &received() const { return received_; }
    bool was_accepted() const { return accepted_; }
    void forget() {
        received_.clear();
        accepted_ = false;
    }

  private:
    // The other end; -1 when the broker does not have it, or not any more.
    int broker_socket() const {
        const uint16_t port = tcp_->port();
        for (uint32_t h = 0; h < zeb::netip_table_used(); ++h)
            if (is_in_use(h) && zeb::netip_get_client_port(h) == port) return socket_of(h);
        return -1;
    }

    bool take_packet() {
        size_t left = 0;
        size_t at = 1;
        for (int shift = 0;; shift += 7) {
            if (at >= pending_.size()) return false;
            left |= static_cast<size_t>(pending_[at] & 0x7F) << shift;
            if ((pending_[at++] & 0x80) == 0) break;
        }
        if (pending_.size() < at + left) return false;
        bytes packet(pending_.begin(), pending_.begin() + static_cast<long>(at + left));
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(at + left));
        acknowledge(&packet, at);
        received_.push_back(dump(packet));
        return true;
    }

    // Answers the packet, and blots its identifier out.
    void acknowledge(bytes *packet, size_t body) {
        const int type = (*packet)[0] >> 4;
        const int qos = (*packet)[0] >> 1 & 3;
        if (type == 2) accepted_ = (*packet)[body + 1] == 0;
        size_t at = body;
        if (type == 3 && qos == 0) return;
        if (type == 3) at += 2 + static_cast<size_t>((*packet)[body] << 8 | (*packet)[body + 1]);
        const bool answered = type == 3 || type == 5 || type == 6;
        if (!answered) return;
        const uint8_t high = (*packet)[at];
        const uint8_t low = (*packet)[at + 1];
        if (type == 3) (*packet)[at] = (*packet)[at + 1] = 0;
        if (type == 6) (*packet)[body] = (*packet)[body + 1] = 0;
        const uint8_t answer = type == 3 ? (qos == 1 ? 0x40 : 0x50) : type == 5 ? 0x62 : 0x70;
        send({answer, 2, high, low});
    }

    std::unique_ptr<tcp_client> tcp_;
    bytes pending_;
    bool ended_ = false;
    bool accepted_ = false;
    std::vector<std::string> received_;
};

// Until everything that these clients have sent has been handled and everything that was answered has come.
// One I/O thread handles all connections in turn, and one thread sends to all of them: what was there before
// the first of four pings has been handled, and its answers sent, by the time the last is answered.
inline void settle(mqtt_peer *witness, const std::vector<scripted_client *> &clients) {
    bool news = true;
    while (news) {
        for (scripted_client *client : clients) client->await_delivery();
        for (int ping = 0; ping < 4; ++ping) ASSERT_TRUE(witness->is_served());
        for (scripted_client *client : clients) client->await_delivery();
        news = false;
        for (scripted_client *client : clients) news |= client->take();
    }
}

}  // namespace zeb_test

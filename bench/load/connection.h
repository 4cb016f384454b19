// Non-blocking connections to the broker, and the epoll instance that watches them.
#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace zeb_load {

enum class role : uint8_t { publisher, subscriber, slow, other };

// A plain record: a run has one for each client, and its loop works on them directly.
struct connection {
    int fd = -1;
    role kind = role::other;
    bool wants_output = false;
    bool reads = true;             // watched for input
    uint32_t index = 0;            // among those of its kind
    std::vector<uint8_t> partial;  // the beginning of a packet whose end has not come
    std::vector<uint8_t> unsent;   // what the socket did not take
};

class poller {
  public:
    poller();
    ~poller();
    poller(const poller &) = delete;
    poller &operator=(const poller &) = delete;

    bool works() const { return fd_ >= 0; }
    bool add(connection &c);
    void watch(connection &c, bool input, bool output);
    void close(connection &c);

    // Wait until something happens, at most that long.
    std::span<epoll_event> wait(uint64_t timeout_ns);

  private:
    static constexpr int k_events = 512;
    int fd_;
    epoll_event events_[k_events];
};

// Send, and keep what the socket does not take for flush(). False when the connection is broken.
bool send_bytes(poller &poll, connection &c, const uint8_t *bytes, size_t size);
bool flush(poller &poll, connection &c);

// One buffer for all connections. What a connection left over is put in front of what it receives next, so
// that packets are always read in one piece.
class receive_buffer {
  public:
    explicit receive_buffer(size_t max_packet) : head_(max_packet), bytes_(max_packet + k_receive_bytes) {}

    enum class result : uint8_t { nothing, some, closed };

    // At most `limit` bytes. The range stays valid until the next call.
    result receive(connection &c, const uint8_t *&begin, const uint8_t *&end, size_t limit = k_receive_bytes);

    // Keep the rest for the next time. False when it is longer than any packet may be.
    bool keep(connection &c, const uint8_t *begin, const uint8_t *end) const;

    static constexpr size_t k_receive_bytes = 256 * 1024;

  private:
    size_t head_;
    std::vector<uint8_t> bytes_;
};

// Where the broker is.
struct endpoint {
    sockaddr_storage address;
    socklen_t size = 0;
};
bool resolve(const char *host, uint16_t port, endpoint &out);

// Begin to connect, with a receive buffer of that size unless it is 0. False with errno set.
bool start_connect(connection &c, const endpoint &to, int receive_bytes);

}  // namespace zeb_load

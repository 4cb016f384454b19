// The frame reassembly: a stream that is cut at any places gives the packets that it holds, and the same as
// in one piece. The reader gets its bytes from one end of a socket pair in the place of a connection's
// socket.
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_input.h"
#include "log/agent_log.h"
#include "log/platform_time.h"
#include "netip/netip_internal.h"

using namespace zeb;
using namespace zeb_fuzz;

namespace {

using packet = std::vector<uint8_t>;

// What the callback is told of the connection, and what it does about it.
struct listener {
    std::vector<packet> packets;
    int disconnects = 0;
    std::size_t close_after = SIZE_MAX;  // the connection is closed from inside the callback
    uint8_t answer = 1;
};

listener g_listener;

int on_event(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len, uint32_t, uint32_t, void *) {
    if (event == NETIP_EVENT_DISCONNECT) {
        ++g_listener.disconnects;
        return g_listener.answer;
    }
    FUZZ_CHECK(event == NETIP_EVENT_DATA && len >= 2 && len <= NETIP_RX_BUF_SIZE);
    FUZZ_CHECK(g_listener.disconnects == 0);
    g_listener.packets.emplace_back(data, data + len);
    if (g_listener.packets.size() == g_listener.close_after) netip_close(handle);
    return 1;
}

// The packets of a stream, cut out apart from the library, and whether the stream ends its connection.
struct reference {
    std::vector<packet> packets;
    bool ends = false;
};

reference cut(const std::vector<uint8_t> &stream, std::size_t close_after) {
    reference out;
    std::size_t pos = 0;
    for (;;) {
        std::size_t total = 0;  // unknown
        std::size_t value = 0;
        for (std::size_t i = 0; i < 4 && pos + 1 + i < stream.size(); ++i) {
            const uint8_t byte = stream[pos + 1 + i];
            value |= static_cast<std::size_t>(byte & 0x7F) << (7 * i);
            if (byte >= 0x80) continue;
            total = 2 + i + value;
            break;
        }
        if (total == 0 || total > stream.size() - pos || total > NETIP_RX_BUF_SIZE) break;
        out.packets.emplace_back(stream.begin() + static_cast<std::ptrdiff_t>(pos),
                                 stream.begin() + static_cast<std::ptrdiff_t>(pos + total));
        if (out.packets.size() == close_after) {
            out.ends = true;
            return out;
        }
        pos += total;
    }
    out.ends = stream.size() - pos >= NETIP_RX_BUF_SIZE;
    return out;
}

bool unread(int fd) {
    int bytes = 0;
    return ioctl(fd, FIONREAD, &bytes) == 0 && bytes > 0;
}

// One connection, driven as the I/O thread does.
class connection {
  public:
    connection() {
        int pair[2];
        FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0);
        peer_ = pair[0];
        fd_ = pair[1];
        const std::lock_guard guard(g_netip_lock);
        conn_ = netip_take_slot(NETIP_TYPE_TCP, fd_, sockaddr_in{}, &generation_);
        FUZZ_CHECK(conn_ != nullptr);
    }
    ~connection() {
        netip_give_back_slot(*conn_, generation_);
        ::close(peer_);
        FUZZ_CHECK(conn_->in_use.load() == 0 && conn_->closing.load() == 0 && conn_->io_busy.load() == 0);
        FUZZ_CHECK(conn_->rx_len == 0 && conn_->pkt_len_known == 0);
    }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    bool open() const { return netip_is_current(*conn_, generation_); }

    void bring(const uint8_t *data, std::size_t len) {
        constexpr std::size_t k_chunk = 32768;  // less than the pair holds
        while (len > 0 && open()) {
            const std::size_t n = len < k_chunk ? len : k_chunk;
            FUZZ_CHECK(send(peer_, data, n, MSG_NOSIGNAL) == static_cast<ssize_t>(n));
            data += n;
            len -= n;
            do {
                on_input();
            } while (open() && unread(fd_));
        }
    }
    void end() {
        (void)shutdown(peer_, SHUT_WR);
        if (open()) on_input();
    }

  private:
    void on_input() {
        if (!netip_pin(*conn_, generation_)) return;
        uint32_t packets = 0;
        if (netip_read_connection(*conn_, generation_, &packets)) netip_close_by_peer(*conn_, generation_);
        netip_unpin(*conn_);
    }

    int peer_;
    int fd_;
    netip_conn *conn_ = nullptr;
    uint32_t generation_ = 0;
};

// Cuts the stream by the places that the input gives; the last piece is what is left.
void check_stream(const std::vector<uint8_t> &stream, const std::vector<uint8_t> &cuts,
                  std::size_t close_after) {
    const reference expected = cut(stream, close_after);
    g_listener = listener{};
    g_listener.close_after = close_after;
    connection c;
    std::size_t pos = 0;
    for (const uint8_t step : cuts) {
        // Steps of 1..128 bytes, and larger ones.
        std::size_t n = step < 128 ? step + 1u : (step - 127u) * 64u;
        n = std::min(n, stream.size() - pos);
        if (n == 0 || !c.open()) break;
        c.bring(stream.data() + pos, n);
        pos += n;
    }
    c.bring(stream.data() + pos, stream.size() - pos);
    FUZZ_CHECK(g_listener.packets == expected.packets);
    FUZZ_CHECK(c.open() != expected.ends && g_listener.disconnects == (expected.ends ? 1 : 0));
    c.end();
    FUZZ_CHECK(!c.open() && g_listener.disconnects == 1);
}

const platform_clock k_still = {[] { return uint64_t{1000000}; }, [] { return uint64_t{1700000000000}; },
                                [](uint64_t) {}};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    agent_log_set_level(AGENT_LOG_FATAL);
    platform_set_clock(&k_still);
    g_io_thread_num = 1;
    g_netip_cb.store(on_event);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const uint8_t close_after = in.u8();
    const std::vector<uint8_t> cuts = in.block();
    const std::vector<uint8_t> repeats = in.bytes(1);
    std::vector<uint8_t> stream = in.rest();
    // Tiny packets by the hundred, and packets beyond the buffer, are worth more bytes than an input has.
    const std::vector<uint8_t> once = stream;
    for (int i = repeats.empty() ? 0 : repeats[0] & 15; i > 0; --i)
        stream.insert(stream.end(), once.begin(), once.end());
    const std::size_t after = close_after < 0x80 ? SIZE_MAX : close_after - 0x7Fu;
    check_stream(stream, {}, after);
    if (!cuts.empty()) check_stream(stream, cuts, after);
    return 0;
}

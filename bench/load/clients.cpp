#include "clients.h"

#include <errno.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstring>

#include "clock.h"

namespace zeb_load {

namespace {

constexpr uint64_t k_stall_ns = 3 * k_ns_per_s;       // no client got further
constexpr uint64_t k_open_ns = 8 * k_ns_per_s;        // for all together
constexpr uint64_t k_open_each_ns = 5 * k_ns_per_ms;  // and more for each of many
constexpr uint64_t k_tick_ns = 100 * k_ns_per_ms;
constexpr uint64_t k_close_ns = k_ns_per_s;
constexpr uint8_t k_refused = 0x80;
constexpr uint8_t k_pingreq[] = {0xC0, 0};
constexpr uint8_t k_disconnect[] = {0xE0, 0};
constexpr uint64_t k_spare_files = 16;

const uint8_t *bytes_of(const std::string &text) {
    return reinterpret_cast<const uint8_t *>(text.data());
}

}  // namespace

open_result opener::open(std::vector<client> &clients, bool go_on) {
    result_ = open_result();
    const uint64_t begin = now_ns();
    const uint64_t end = begin + k_open_ns + clients.size() * k_open_each_ns;
    size_t next = 0;
    last_progress_ns_ = begin;
    while (result_.opened + result_.failed < clients.size()) {
        while (next < clients.size() && in_progress_ < options_.window && (go_on || result_.failed == 0))
            start(clients[next++]);
        if (result_.failed > 0 && !go_on) break;
        const uint64_t now = now_ns();
        if (now > last_progress_ns_ + k_stall_ns || now > end) {
            result_.timed_out = true;
            break;
        }
        for (const epoll_event &event : poll_.wait(k_tick_ns))
            handle(*static_cast<client *>(static_cast<connection *>(event.data.ptr)), event.events);
    }
    for (client &c : clients) {
        if (c.state == client::phase::ready || c.state == client::phase::gone) continue;
        fail(c, "no answer in time");
    }
    result_.took_ns = now_ns() - begin;
    return result_;
}

void opener::start(client &c) {
    c.started_ns = now_ns();
    ++in_progress_;
    c.state = client::phase::connecting;
    c.wants_output = true;
    if (!start_connect(c, to_, c.receive_bytes)) return fail(c, std::string("connect: ") + strerror(errno));
    if (!poll_.add(c)) fail(c, std::string("epoll_ctl: ") + strerror(errno));
}

void opener::handle(client &c, uint32_t events) {
    if (c.fd < 0) return;
    if (c.state == client::phase::connecting) {
        if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) != 0) connected(c);
        return;
    }
    if ((events & EPOLLOUT) != 0 && !flush(poll_, c)) return fail(c, "connection broken");
    if ((events & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) read(c);
}

void opener::connected(client &c) {
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
    if (error != 0) return fail(c, std::string("connect: ") + strerror(error));
    poll_.watch(c, true, false);
    c.state = client::phase::greeting;
    const std::string hello = connect_packet(c.id, static_cast<uint16_t>(options_.keepalive_s));
    if (!send_bytes(poll_, c, bytes_of(hello), hello.size())) fail(c, "connection broken");
}

void opener::read(client &c) {
    const uint8_t *at = nullptr;
    const uint8_t *end = nullptr;
    const receive_buffer::result got = buffer_.receive(c, at, end);
    if (got == receive_buffer::result::nothing) return;
    if (got == receive_buffer::result::closed) return fail(c, "the broker closed a connection");
    packet p{};
    int cut = 0;
    while ((cut = next_packet(at, end, p)) == 1) {
        if (!take(c, p)) return;
    }
    if (cut < 0 || !buffer_.keep(c, at, end)) fail(c, "malformed packet");
}

// False when the client has failed.
bool opener::take(client &c, const packet &p) {
    const uint8_t *const codes_end = p.body + p.size;
    if (c.state == client::phase::greeting && p.type() == k_connack) {
        if (p.size == 2 && p.body[1] == 0) return subscribe_or_finish(c);
        fail(c, "CONNECT refused");
        return false;
    }
    if (c.state == client::phase::subscribing && p.type() == k_suback) {
        if (p.size == 2 + c.awaited && std::find(p.body + 2, codes_end, k_refused) == codes_end)
            return subscribe_or_finish(c);
        fail(c, "SUBSCRIBE refused");
        return false;
    }
    return true;  // nothing that matters here
}

bool opener::subscribe_or_finish(client &c) {
    last_progress_ns_ = now_ns();
    if (c.subscribed == c.filters.size()) {
        c.state = client::phase::ready;
        --in_progress_;
        ++result_.opened;
        result_.latencies_ns.add(last_progress_ns_ - c.started_ns);
        return true;
    }
    c.state = client::phase::subscribing;
    std::string out;
    const size_t next = subscribe_packet(c.filters, c.subscribed, static_cast<uint8_t>(options_.qos), out);
    c.awaited = next - c.subscribed;
    c.subscribed = next;
    if (send_bytes(poll_, c, bytes_of(out), out.size())) return true;
    fail(c, "connection broken");
    return false;
}

void opener::fail(client &c, const std::string &why) {
    if (c.state == client::phase::ready) --result_.opened;
    if (c.state != client::phase::ready && c.state != client::phase::unopened) --in_progress_;
    poll_.close(c);
    c.state = client::phase::gone;
    ++result_.failed;
    if (result_.reason.empty()) result_.reason = why;
}

pinger::pinger(std::vector<client> &clients, uint64_t keepalive_s, uint64_t start_ns) : clients_(clients) {
    if (keepalive_s == 0 || clients.empty()) return;
    step_ns_ = std::max<uint64_t>(keepalive_s * k_ns_per_s / 2 / clients.size(), 1);
    next_ns_ = start_ns + step_ns_;
}

void pinger::run(poller &poll, uint64_t now) {
    // A round after a long pause is enough.
    for (size_t i = 0; i < clients_.size() && next_ns_ <= now; ++i, next_ns_ += step_ns_) {
        client &c = clients_[at_];
        at_ = (at_ + 1) % clients_.size();
        // What is unsent does as well. A broken connection shows when it is read.
        if (c.fd >= 0 && c.unsent.empty()) (void)send_bytes(poll, c, k_pingreq, sizeof k_pingreq);
    }
}

void close_clients(poller &poll, receive_buffer &buffer, std::vector<client> &clients) {
    size_t open = 0;
    for (client &c : clients) {
        if (c.fd < 0) continue;
        poll.watch(c, true, false);
        if (c.unsent.empty() && send_bytes(poll, c, k_disconnect, sizeof k_disconnect))
            ++open;
        else
            poll.close(c);
    }
    const uint64_t end = now_ns() + k_close_ns;
    const uint8_t *begin = nullptr;
    const uint8_t *stop = nullptr;
    for (uint64_t now = now_ns(); open > 0 && now < end; now = now_ns()) {
        for (const epoll_event &event : poll.wait(end - now)) {
            connection &c = *static_cast<connection *>(event.data.ptr);
            if (c.fd < 0 || (event.events & (EPOLLIN | EPOLLERR | EPOLLHUP)) == 0) continue;
            c.partial.clear();
            if (buffer.receive(c, begin, stop) != receive_buffer::result::closed) continue;
            poll.close(c);
            --open;
        }
    }
    for (client &c : clients) poll.close(c);
}

bool room_for(uint64_t connections) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= connections + k_spare_files;
}

}  // namespace zeb_load

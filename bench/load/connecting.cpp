// The scenarios that only hold connections.
#include <algorithm>

#include "clients.h"
#include "clock.h"
#include "identities.h"
#include "process_usage.h"
#include "scenarios.h"

namespace zeb_load {

namespace {

constexpr uint64_t k_idle_tick_ns = 100 * k_ns_per_ms;

struct crowd {
    crowd(const options &o, const endpoint &to)
        : buffer(k_max_packet_overhead), clients(o.connections), open_all(poll, buffer, to, o) {
        const std::vector<std::string> ids = make_identities(o.prefix, clients.size(), o.spread_ids);
        for (size_t i = 0; i < clients.size(); ++i) clients[i].id = ids[i];
    }
    ~crowd() { close_clients(poll, buffer, clients); }
    crowd(const crowd &) = delete;
    crowd &operator=(const crowd &) = delete;

    poller poll;
    receive_buffer buffer;
    std::vector<client> clients;
    opener open_all;
};

bool usage_of(const options &o, process_usage &out) {
    return o.pid != 0 && read_usage(static_cast<pid_t>(o.pid), out);
}

void add_memory(const process_usage &before, const process_usage &after, bool known, uint64_t opened,
                report &out) {
    add_known("broker_rss_before_kib", known, before.resident_kib, out);
    add_known("broker_rss_kib", known, after.resident_kib, out);
    if (!known || opened == 0) return out.add_null("rss_kib_per_connection");
    const double grown = static_cast<double>(after.resident_kib) - static_cast<double>(before.resident_kib);
    out.add("rss_kib_per_connection", grown / static_cast<double>(opened));
}

void add_head(const options &o, const char *name, report &out) {
    out.add("name", o.name);
    out.add("scenario", name);
    out.add("connections", o.connections);
}

// Returns how many connections the broker closed meanwhile.
uint64_t sit_idle(const options &o, crowd &people, uint64_t start) {
    const uint64_t end = start + to_ns(o.seconds);
    pinger pings(people.clients, o.keepalive_s, start);
    const uint8_t *from = nullptr;
    const uint8_t *to = nullptr;
    uint64_t closed = 0;
    for (uint64_t now = now_ns(); now < end; now = now_ns()) {
        pings.run(people.poll, now);
        const uint64_t until = std::min({end, now + k_idle_tick_ns, pings.next_ns()});
        for (const epoll_event &event : people.poll.wait(until > now ? until - now : 0)) {
            connection &c = *static_cast<connection *>(event.data.ptr);
            if (c.fd < 0) continue;
            const bool flushed = (event.events & EPOLLOUT) == 0 || flush(people.poll, c);
            if (flushed && (event.events & (EPOLLIN | EPOLLERR | EPOLLHUP)) == 0) continue;
            if (flushed && people.buffer.receive(c, from, to) != receive_buffer::result::closed) continue;
            people.poll.close(c);
            ++closed;
        }
    }
    return closed;
}

}  // namespace

int run_connect(const options &o, const endpoint &to, report &out) {
    add_head(o, "connect", out);
    process_usage before;
    process_usage after;
    const bool known = usage_of(o, before);
    crowd people(o, to);
    const double own_before_s = own_cpu_s();
    const open_result opened = people.open_all.open(people.clients, true);
    const bool still_known = usage_of(o, after);
    out.add("window", o.window);
    out.add("connected", opened.opened);
    out.add("failures", opened.failed);
    out.add("seconds", static_cast<double>(opened.took_ns) / 1e9);
    out.add("connects_per_s", static_cast<double>(opened.opened) * 1e9 / static_cast<double>(opened.took_ns));
    add_latencies(opened.latencies_ns, out);
    if (known && still_known)
        out.add("broker_cpu_s", after.cpu_s - before.cpu_s);
    else
        out.add_null("broker_cpu_s");
    add_memory(before, after, known && still_known, opened.opened, out);
    out.add("load_cpu_s", own_cpu_s() - own_before_s);
    return opened.opened == 0 || opened.timed_out ? fail(opened.reason, out) : 0;
}

int run_idle(const options &o, const endpoint &to, report &out) {
    add_head(o, "idle", out);
    process_usage before;
    process_usage connected;
    process_usage after;
    const bool known = usage_of(o, before);
    crowd people(o, to);
    const open_result opened = people.open_all.open(people.clients, false);
    if (opened.failed > 0) return fail(opened.reason, out);
    const uint64_t start = now_ns();
    (void)usage_of(o, connected);  // a process that has gone since shows below
    const uint64_t closed = sit_idle(o, people, start);
    const double took_s = static_cast<double>(now_ns() - start) / 1e9;
    const bool still_known = usage_of(o, after);
    out.add("connected", opened.opened);
    out.add("closed", closed);
    out.add("seconds", took_s);
    if (known && still_known)
        out.add("broker_cpu_percent", (after.cpu_s - connected.cpu_s) * 100 / took_s);
    else
        out.add_null("broker_cpu_percent");
    add_memory(before, after, known && still_known, opened.opened, out);
    return closed == opened.opened ? fail("the broker closed all connections", out) : 0;
}

}  // namespace zeb_load

#include "publishing.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <numeric>

namespace zeb_load {

namespace {

constexpr size_t k_write_bytes = 64 * 1024;
constexpr uint8_t k_fill = 0xFF;
constexpr uint8_t k_pubrel_byte = k_pubrel << 4 | 2;
constexpr size_t k_max_head = k_max_packet_overhead;

}  // namespace

publishing::publishing(poller &poll, const options &o, uint16_t run, const schedule *when,
                       const window &measured)
    : poll_(poll),
      run_(run),
      when_(when),
      measured_(measured),
      qos_(o.qos),
      inflight_(o.inflight),
      payload_(static_cast<size_t>(o.payload)),
      published_(static_cast<size_t>(o.topics)),
      // The answers to one read are shorter than the read.
      out_(std::max(k_write_bytes, receive_buffer::k_receive_bytes) + 2 * (k_max_head + payload_)) {
    all_.reserve(static_cast<size_t>(o.publishers));
}

void publishing::add(client &link, const publish_head &head) {
    publisher p;
    p.link = &link;
    p.head = &head;
    if (qos_ > 0) p.unacknowledged.resize(std::bit_ceil(static_cast<size_t>(inflight_) * 2));
    all_.push_back(std::move(p));
}

publishing::pumped publishing::pump(size_t i, uint64_t now) {
    publisher &p = all_[i];
    p.held = !p.link->unsent.empty();
    if (p.held || p.link->fd < 0) return pumped::done;
    const size_t topic = i % published_.size();
    out_size_ = 0;
    pumped result = pumped::done;
    for (;;) {
        const uint64_t due = when_ == nullptr ? now : when_->due_ns(p.sent * all_.size() + i);
        if (due > now || due >= measured_.end_ns) break;
        p.held = !may_send(p);
        if (p.held) break;
        if (out_size_ >= k_write_bytes) {
            result = pumped::more;
            break;
        }
        put(p, i, due);
        if (due >= measured_.begin_ns) ++published_[topic];
    }
    if (out_size_ == 0) return result;
    if (!send_bytes(poll_, *p.link, out_.data(), out_size_)) return pumped::broken;
    if (p.link->unsent.empty()) return result;
    p.held = true;
    return pumped::done;
}

void publishing::put(publisher &p, size_t i, uint64_t due) {
    const publish_head &head = *p.head;
    uint8_t *to = out_.data() + out_size_;
    memcpy(to, head.bytes.data(), head.bytes.size());
    if (head.id_at > 0) put_be16(to + head.id_at, take_id(p));
    to += head.bytes.size();
    stamp s;
    s.publisher = static_cast<uint16_t>(i);
    s.run = run_;
    s.number = p.sent++;
    s.due_ns = due;
    s.write(to);
    memset(to + stamp::k_bytes, k_fill, payload_ - stamp::k_bytes);
    out_size_ += head.bytes.size() + payload_;
}

// There is room: at most half of the places are taken.
uint16_t publishing::take_id(publisher &p) {
    const size_t mask = p.unacknowledged.size() - 1;
    do {
        ++p.last_id;
    } while (p.last_id == 0 || p.unacknowledged[p.last_id & mask] != 0);
    p.unacknowledged[p.last_id & mask] = p.last_id;
    ++p.in_flight;
    return p.last_id;
}

bool publishing::release(publisher &p, const packet &ack) {
    const uint16_t id = be16(ack.body);
    uint16_t &place = p.unacknowledged[id & (p.unacknowledged.size() - 1)];
    if (id == 0 || place != id) return false;
    if (ack.type() == k_pubrec) return true;
    place = 0;
    --p.in_flight;
    return false;
}

bool publishing::acknowledge(size_t i, const uint8_t *&at, const uint8_t *end) {
    publisher &p = all_[i];
    out_size_ = 0;
    packet ack{};
    int cut = 0;
    while ((cut = next_packet(at, end, ack)) == 1) {
        const uint8_t last = qos_ == 1 ? k_puback : k_pubcomp;
        if (qos_ == 0 || ack.size < 2 || (ack.type() != last && (qos_ != 2 || ack.type() != k_pubrec)))
            continue;
        if (!release(p, ack)) continue;
        out_[out_size_] = k_pubrel_byte;
        out_[out_size_ + 1] = 2;
        memcpy(out_.data() + out_size_ + 2, ack.body, 2);
        out_size_ += k_ack_bytes;
    }
    if (cut < 0) return false;
    return out_size_ == 0 || send_bytes(poll_, *p.link, out_.data(), out_size_);
}

uint64_t publishing::published() const {
    return std::accumulate(published_.begin(), published_.end(), uint64_t{0});
}

bool publishing::settled() const {
    return std::all_of(all_.begin(), all_.end(),
                       [](const publisher &p) { return p.in_flight == 0 && p.link->unsent.empty(); });
}

}  // namespace zeb_load

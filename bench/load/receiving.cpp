#include "receiving.h"

#include <cstring>

namespace zeb_load {

namespace {

constexpr uint8_t k_puback_byte = k_puback << 4;
constexpr uint8_t k_pubrec_byte = k_pubrec << 4;
constexpr uint8_t k_pubcomp_byte = k_pubcomp << 4;

}  // namespace

receiving::receiving(poller &poll, const options &o, uint16_t run, const publishing &from,
                     const window &measured)
    : poll_(poll),
      options_(o),
      run_(run),
      from_(from),
      measured_(measured),
      topics_(static_cast<size_t>(o.topics)),
      payload_(static_cast<size_t>(o.payload)),
      copies_(topics_),
      // No answer is longer than what it answers.
      out_(receive_buffer::k_receive_bytes + k_max_packet_overhead + payload_) {
    for (size_t i = 0; i < o.publishers; ++i)
        sources_.push_back({static_cast<uint32_t>(i % topics_), static_cast<uint32_t>(i / topics_)});
    place_subscribers();
}

size_t receiving::sources_of(size_t topic) const {
    const size_t publishers = sources_.size();
    return publishers > topic ? (publishers - topic - 1) / topics_ + 1 : 0;
}

// A group takes each message once, whichever of its members gets it, so its members share their memory.
void receiving::place_subscribers() {
    constexpr size_t k_none = SIZE_MAX;
    const size_t groups = static_cast<size_t>(options_.shared);
    std::vector<size_t> places(topics_ * groups, k_none);
    size_t used = 0;
    for (size_t j = 0; j < options_.subscribers; ++j) {
        const size_t topic = j % topics_;
        topic_of_.push_back(static_cast<uint32_t>(topic));
        size_t place = used;
        if (groups > 0) {
            size_t &known = places[topic * groups + j % groups];
            if (known == k_none) known = used;
            place = known;
        }
        seen_at_.push_back(place);
        if (place != used) continue;
        used += sources_of(topic);
        ++copies_[topic];
        // A place that takes no room would be taken for the next one's.
        if (sources_of(topic) == 0) ++used;
    }
    seen_.resize(used);
}

bool receiving::take(client &c, uint64_t now, const uint8_t *&at, const uint8_t *end) {
    out_size_ = 0;
    packet p{};
    int cut = 0;
    while ((cut = next_packet(at, end, p)) == 1) {
        if (p.type() == k_publish) {
            const size_t qos = p.qos();
            const size_t topic_end = p.size < 2 ? SIZE_MAX : 2 + size_t{be16(p.body)};
            const size_t head = topic_end + (qos > 0 ? 2 : 0);
            if (topic_end > p.size || head > p.size) return false;
            count(c, now, p, p.body + head, p.size - head);
            if (qos > 0) answer(qos == 1 ? k_puback_byte : k_pubrec_byte, p.body + topic_end);
        } else if (p.type() == k_pubrel && p.size >= 2) {
            answer(k_pubcomp_byte, p.body);
        }
    }
    if (cut < 0) return false;
    return out_size_ == 0 || send_bytes(poll_, c, out_.data(), out_size_);
}

void receiving::count(const client &c, uint64_t now, const packet &p, const uint8_t *payload, size_t size) {
    stamp s;
    if (size == payload_) s.read(payload);
    if (size != payload_ || s.mark != stamp::k_mark || s.run != run_ || s.publisher >= sources_.size() ||
        s.number >= from_.sent(s.publisher)) {
        ++result_.foreign;
        return;
    }
    if (c.kind == role::slow) {
        result_.slow_delivered += now >= measured_.begin_ns ? 1 : 0;
        return;
    }
    const source &from = sources_[s.publisher];
    if (from.topic != topic_of_[c.index]) {
        ++result_.foreign;
        return;
    }
    if (!seen_[seen_at_[c.index] + from.rank].add(s.number)) {
        ++result_.duplicates;
        return;
    }
    result_.redelivered += p.dup() ? 1 : 0;
    result_.in_window += measured_.holds(now) ? 1 : 0;
    if (!measured_.holds(s.due_ns)) return;
    ++result_.delivered;
    result_.latencies_ns.add(now > s.due_ns ? now - s.due_ns : 0);
}

void receiving::answer(uint8_t first, const uint8_t *id) {
    uint8_t *to = out_.data() + out_size_;
    to[0] = first;
    to[1] = 2;
    memcpy(to + 2, id, 2);
    out_size_ += k_ack_bytes;
}

}  // namespace zeb_load

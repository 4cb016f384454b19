// The publishers of a run: stamping and sending what is due, and their side of the acknowledgements.
#pragma once

#include <cstdint>
#include <vector>

#include "clients.h"
#include "packets.h"
#include "schedule.h"

namespace zeb_load {

// The measured time of a run, and whose messages are whose.
struct window {
    uint64_t begin_ns = 0;
    uint64_t end_ns = 0;

    bool holds(uint64_t time_ns) const { return time_ns >= begin_ns && time_ns < end_ns; }
};

struct publisher {
    client *link = nullptr;
    const publish_head *head = nullptr;
    uint64_t sent = 0;  // which is the number of its next message
    bool held = false;  // has more that is due, but may not send it yet
    uint16_t last_id = 0;
    uint32_t in_flight = 0;
    std::vector<uint16_t> unacknowledged;  // identifiers, each at its place modulo the size
};

class publishing {
  public:
    enum class pumped : uint8_t { done, more, broken };

    publishing(poller &poll, const options &o, uint16_t run, const schedule *when, const window &measured);

    void add(client &link, const publish_head &head);

    // Send the messages of publisher `i` that are due, in one write. `more` when it stopped at what one write
    // holds.
    pumped pump(size_t i, uint64_t now);

    // Go through the acknowledgements of a read and answer them. False when the connection is broken.
    bool acknowledge(size_t i, const uint8_t *&at, const uint8_t *end);

    uint64_t sent(size_t i) const { return all_[i].sent; }
    bool held(size_t i) const { return all_[i].held; }
    size_t size() const { return all_.size(); }
    // In the measured time, of one topic's publishers and of all.
    uint64_t published(size_t topic) const { return published_[topic]; }
    uint64_t published() const;
    // Nothing is unsent or unacknowledged.
    bool settled() const;

  private:
    bool may_send(const publisher &p) const { return qos_ == 0 || p.in_flight < inflight_; }
    void put(publisher &p, size_t i, uint64_t due);
    uint16_t take_id(publisher &p);
    bool release(publisher &p, const packet &ack);

    poller &poll_;
    const uint16_t run_;
    const schedule *when_;  // null: whenever the socket takes it
    const window measured_;
    const uint64_t qos_;
    const uint64_t inflight_;
    const size_t payload_;
    std::vector<publisher> all_;
    std::vector<uint64_t> published_;
    std::vector<uint8_t> out_;
    size_t out_size_ = 0;
};

}  // namespace zeb_load

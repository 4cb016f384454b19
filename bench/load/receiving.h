// The subscribers of a run: counting and timing what arrives, and their side of the acknowledgements.
#pragma once

#include <cstdint>
#include <vector>

#include "clients.h"
#include "histogram.h"
#include "packets.h"
#include "publishing.h"
#include "seen.h"

namespace zeb_load {

struct arrivals {
    uint64_t delivered = 0;  // of what was published in the measured time, each once
    uint64_t in_window = 0;  // all that came for the first time within the measured time
    uint64_t duplicates = 0;
    uint64_t redelivered = 0;     // marked DUP, but the first to come; counted as delivered
    uint64_t foreign = 0;         // no messages of this run
    uint64_t slow_delivered = 0;  // to the slow ones, from the measured time on, whenever published
    histogram latencies_ns;
};

class receiving {
  public:
    receiving(poller &poll, const options &o, uint16_t run, const publishing &from, const window &measured);

    // Count a read and answer it. False when the connection is broken.
    bool take(client &c, uint64_t now, const uint8_t *&at, const uint8_t *end);

    // How many copies of one message of that topic are expected.
    uint64_t copies(size_t topic) const { return copies_[topic]; }
    const arrivals &result() const { return result_; }

  private:
    struct source {  // a publisher, as its topic's subscribers see it
        uint32_t topic;
        uint32_t rank;
    };

    size_t sources_of(size_t topic) const;
    void place_subscribers();
    void count(const client &c, uint64_t now, const packet &p, const uint8_t *payload, size_t size);
    void answer(uint8_t first, const uint8_t *id);

    poller &poll_;
    const options &options_;
    const uint16_t run_;
    const publishing &from_;
    const window measured_;
    const size_t topics_;
    const size_t payload_;
    std::vector<source> sources_;
    std::vector<uint32_t> topic_of_;  // of each subscriber
    std::vector<size_t> seen_at_;     // where its part of seen_ begins
    std::vector<seen_numbers> seen_;  // for each subscriber or group of a topic: its publishers
    std::vector<uint64_t> copies_;
    std::vector<uint8_t> out_;
    size_t out_size_ = 0;
    arrivals result_;
};

}  // namespace zeb_load

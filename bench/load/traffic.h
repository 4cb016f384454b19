// One run of publishers and subscribers against the broker.
#pragma once

#include <cstdint>
#include <string>

#include "histogram.h"
#include "options.h"
#include "receiving.h"

namespace zeb_load {

struct outcome {
    std::string error;    // empty when the run was done
    bool broken = false;  // it had begun when the error came
    uint64_t rate = 0;
    uint64_t offered = 0;
    uint64_t published = 0;
    uint64_t expected = 0;
    arrivals got;
    uint64_t slow_closed = 0;  // slow subscribers that the broker gave up
    double copies = 0;         // expected of one message, on average
    double broker_cpu_s = -1;  // unknown
    uint64_t broker_connected_kib = 0;
    uint64_t broker_kib = 0;
    double load_cpu_s = 0;

    uint64_t lost() const { return expected > got.delivered ? expected - got.delivered : 0; }
};

// `run` tells the messages of one run from those of another.
outcome run_traffic(const options &o, const endpoint &to, uint16_t run, uint64_t rate);

}  // namespace zeb_load

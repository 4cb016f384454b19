// The command line.
#pragma once

#include <cstdint>
#include <string>

namespace zeb_load {

enum class scenario : uint8_t { connect, idle, publish };
enum class filter_form : uint8_t { exact, plus, hash, mixed };

struct options {
    scenario what = scenario::publish;
    std::string name;
    std::string host = "127.0.0.1";
    uint64_t port = 1883;
    uint64_t pid = 0;  // 0: unknown
    uint64_t keepalive_s = 0;
    std::string prefix = "zl";
    bool spread_ids = false;
    bool verbose = false;
    double seconds = 5;

    uint64_t connections = 1000;
    uint64_t window = 64;

    uint64_t publishers = 1;
    uint64_t subscribers = 1;
    uint64_t topics = 1;
    uint64_t qos = 0;
    uint64_t payload = 64;
    uint64_t rate = 0;  // 0: as fast as it goes; --search has a start of its own
    uint64_t inflight = 20;
    std::string pace = "smooth";
    uint64_t burst_ms = 100;
    double warmup_s = 1;
    double drain_s = 2;
    uint64_t others = 0;
    std::string other_filters = "exact";
    uint64_t shared = 0;
    uint64_t slow = 0;
    uint64_t slow_rate = 1024;
    bool search = false;
    uint64_t loss_ppm = 0;  // that a probe of the search may lose

    filter_form others_form() const;
    uint64_t connection_count() const;
};

enum class parsed : uint8_t { run, help, wrong };

// On `wrong` the reason has gone to stderr.
parsed parse_options(int argc, char **argv, options &out);

void print_help();

}  // namespace zeb_load

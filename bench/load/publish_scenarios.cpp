// The scenarios that publish: one run, or the search for the highest rate.
#include <algorithm>
#include <cstdio>

#include "scenarios.h"
#include "traffic.h"

namespace zeb_load {

namespace {

constexpr double k_good_part = 0.97;  // of what was offered
constexpr double k_precision = 1.05;
constexpr uint64_t k_max_rate = 100000000;
constexpr int k_tries = 2;

// Keeps what the search has found so far.
struct search {
    const options &o;
    const endpoint &to;
    uint16_t runs = 0;
    outcome best;   // the highest rate without loss
    outcome worst;  // the last failed one
    std::string error;

    bool passes(uint64_t rate);
    void look();
};

bool good(const options &o, const outcome &got) {
    const double offered = static_cast<double>(got.offered);
    const double copies = offered * got.copies;
    return got.error.empty() && got.lost() * 1000000 <= got.expected * o.loss_ppm &&
           static_cast<double>(got.published) >= k_good_part * offered &&
           static_cast<double>(got.got.in_window) >= k_good_part * copies;
}

// A broker that ends connections under load has failed the probe; one that takes none any more ends the
// search.
bool search::passes(uint64_t rate) {
    for (int i = 0; i < k_tries && error.empty(); ++i) {
        outcome got = run_traffic(o, to, ++runs, rate);
        if (!got.error.empty() && !got.broken) error = got.error;
        const bool fine = good(o, got);
        if (o.verbose)
            (void)fprintf(stderr, "%llu/s: %s, published %llu of %llu, lost %llu, in time %llu %s\n",
                          static_cast<unsigned long long>(rate), fine ? "good" : "failed",
                          static_cast<unsigned long long>(got.published),
                          static_cast<unsigned long long>(got.offered),
                          static_cast<unsigned long long>(got.lost()),
                          static_cast<unsigned long long>(got.got.in_window), got.error.c_str());
        (fine ? best : worst) = std::move(got);
        if (fine) return true;
    }
    return false;
}

void search::look() {
    uint64_t low = 0;
    uint64_t high = o.rate;
    while (high <= k_max_rate && passes(high)) {
        low = high;
        high *= 2;
    }
    // The start was too high: down until something works.
    while (low == 0 && high > 1 && error.empty()) {
        if (passes(high / 2))
            low = high / 2;
        else
            high /= 2;
    }
    while (low > 0 && error.empty() && static_cast<double>(high) > static_cast<double>(low) * k_precision) {
        const uint64_t middle = low + (high - low) / 2;
        if (middle == low) break;
        (passes(middle) ? low : high) = middle;
    }
}

double per_second(uint64_t count, const options &o) {
    return static_cast<double>(count) / o.seconds;
}

void add_extras(const options &o, const outcome &got, report &out) {
    out.add("redelivered", got.got.redelivered);
    out.add("foreign", got.got.foreign);
    if (o.slow == 0) return;
    out.add("slow", o.slow);
    out.add("slow_rate", o.slow_rate);
    out.add("slow_delivered", got.got.slow_delivered);
    out.add("slow_closed", got.slow_closed);
}

void add_shape(const options &o, report &out) {
    out.add("publishers", o.publishers);
    out.add("subscribers", o.subscribers);
    out.add("topics", o.topics);
    out.add("qos", o.qos);
    out.add("payload", o.payload);
    if (o.qos > 0) out.add("inflight", o.inflight);
    out.add("pace", o.pace);
    out.add("others", o.others);
    if (o.others > 0) out.add("other_filters", o.other_filters);
    out.add("shared", o.shared);
}

void add_usage(const options &o, const outcome &got, report &out) {
    const uint64_t delivered = got.got.delivered + got.got.slow_delivered;
    if (got.broker_cpu_s >= 0)
        out.add("broker_cpu_s", got.broker_cpu_s);
    else
        out.add_null("broker_cpu_s");
    if (got.broker_cpu_s >= 0 && delivered > 0)
        out.add("broker_cpu_s_per_million", got.broker_cpu_s * 1e6 / static_cast<double>(delivered));
    else
        out.add_null("broker_cpu_s_per_million");
    add_known("broker_rss_connected_kib", o.pid != 0 && got.broker_connected_kib > 0,
              got.broker_connected_kib, out);
    add_known("broker_rss_kib", o.pid != 0 && got.broker_kib > 0, got.broker_kib, out);
    out.add("load_cpu_s", got.load_cpu_s);
}

}  // namespace

int fail(const std::string &error, report &out) {
    out.add("error", error);
    (void)fprintf(stderr, "zeb_load: %s\n", error.c_str());
    return 1;
}

void add_known(const char *key, bool known, uint64_t number, report &out) {
    if (known)
        out.add(key, number);
    else
        out.add_null(key);
}

void add_latencies(const histogram &latencies_ns, report &out) {
    constexpr struct {
        const char *key;
        double part;
    } k_parts[] = {{"latency_p50_us", 0.5},
                   {"latency_p90_us", 0.9},
                   {"latency_p99_us", 0.99},
                   {"latency_p999_us", 0.999}};
    for (const auto &p : k_parts) out.add(p.key, static_cast<double>(latencies_ns.quantile(p.part)) / 1e3);
    out.add("latency_max_us", static_cast<double>(latencies_ns.max()) / 1e3);
}

void add_outcome(const options &o, const outcome &got, const char *scenario, report &out) {
    out.add("name", o.name);
    out.add("scenario", scenario);
    add_shape(o, out);
    out.add("rate", got.rate);
    out.add("seconds", o.seconds);
    out.add("published", got.published);
    out.add("expected", got.expected);
    out.add("delivered", got.got.delivered);
    out.add("lost", got.lost());
    out.add("duplicates", got.got.duplicates);
    out.add("offered_per_s", per_second(got.offered, o));
    out.add("published_per_s", per_second(got.published, o));
    out.add("delivered_per_s", per_second(got.got.in_window, o));
    add_latencies(got.got.latencies_ns, out);
    add_usage(o, got, out);
    add_extras(o, got, out);
}

int run_publish(const options &o, const endpoint &to, report &out) {
    const outcome got = run_traffic(o, to, 1, o.rate);
    add_outcome(o, got, "publish", out);
    return got.error.empty() ? 0 : fail(got.error, out);
}

int run_search(const options &o, const endpoint &to, report &out) {
    search s{o, to, 0, {}, {}, {}};
    s.look();
    const bool found = s.best.rate > 0;
    add_outcome(o, found ? s.best : s.worst, "search", out);
    out.add("loss_ppm", o.loss_ppm);
    out.add("max_rate", s.best.rate);
    out.add("max_delivered_per_s", per_second(s.best.got.in_window, o));
    out.add("probes", uint64_t{s.runs});
    return s.error.empty() ? 0 : fail(s.error, out);
}

}  // namespace zeb_load

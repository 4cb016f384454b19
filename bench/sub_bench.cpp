// How finding the subscribers of a topic and changing the subscriptions grow with the table. Every
// publication pays for the former under the table's lock.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "bench/bench_support.h"
#include "sub/sub_mgr.h"
#include "sub/topic_filter.h"

namespace {

using zeb_bench::require;

struct match_case {
    const char *name;
    const char *filter;
    const char *topic;
    int match;
};
constexpr match_case k_matches[] = {
    {"exact", "home/kitchen/temperature", "home/kitchen/temperature", 1},
    {"plus", "home/+/temperature", "home/kitchen/temperature", 1},
    {"hash", "home/#", "home/kitchen/temperature", 1},
    {"shared", "$share/group/home/+/temperature", "home/kitchen/temperature", 1},
    {"deep_exact", "a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p", "a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p", 1},
    {"deep_plus", "+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+", "a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p", 1},
    {"differs_early", "work/kitchen/temperature", "home/kitchen/temperature", 0},
    {"differs_late", "home/kitchen/temperaturf", "home/kitchen/temperature", 0},
    {"level_missing", "home/+/temperature", "home/kitchen", 0},
};

void match_filter(benchmark::State &state, const match_case &c) {
    int64_t matches = 0;
    for (auto _ : state) {
        matches += zeb::topic_match_wildcard(c.filter, c.topic);
        benchmark::ClobberMemory();
    }
    require(state, matches == state.iterations() * c.match, "wrong match");
}

// The filters of a full table, each of which matches one topic of its own: the first "%d" is its number. In
// the second form all of them match k_common_topic.
struct filter_kind {
    const char *name;
    const char *own_filter;
    const char *own_topic;
    const char *common_filter;
};
constexpr filter_kind k_kinds[] = {
    {"exact", "bench/%d/t", "bench/%d/t", "bench/all/t"},
    {"plus", "bench/+/%d", "bench/x/%d", "bench/+/t"},
    {"hash", "bench/%d/#", "bench/%d/t", "bench/#"},
    {"shared", "$share/g/bench/%d/t", "bench/%d/t", "$share/g/bench/all/t"},
};
constexpr char k_common_topic[] = "bench/all/t";

// The pattern's "%d" replaced; not with printf, which wants to see its format.
std::string numbered(const char *pattern, int number) {
    std::string text = pattern;
    const size_t at = text.find("%d");
    return at == std::string::npos ? text : text.replace(at, 2, std::to_string(number));
}

std::string client_name(int i) {
    return "c" + std::to_string(i);
}

bool fill_table(int count, const char *filter) {
    if (zeb::sub_init() != 0) return false;
    for (int i = 0; i < count; ++i)
        if (zeb::sub_add(client_name(i).c_str(), numbered(filter, i).c_str(), 1, 1) != 0) return false;
    return zeb::g_sub_mgr.sub_count.load() == count;
}

struct match_plan {
    const char *filter;
    std::string topic;
    int expected;
};

match_plan plan(const filter_kind &kind, int entries, bool all_match) {
    if (all_match) return {kind.common_filter, k_common_topic, entries};
    return {kind.own_filter, numbered(kind.own_topic, entries / 2), 1};
}

void match_records(benchmark::State &state, const filter_kind &kind, bool all_match) {
    const int entries = static_cast<int>(state.range(0));
    const match_plan p = plan(kind, entries, all_match);
    const auto room = std::make_unique<zeb::mqtt_subscription[]>(static_cast<size_t>(p.expected) + 1);
    if (!require(state, fill_table(entries, p.filter), "table not filled")) return;
    int64_t matched = 0;
    for (auto _ : state) {
        matched += zeb::sub_match(p.topic.c_str(), room.get(), p.expected + 1);
        benchmark::ClobberMemory();
    }
    require(state, matched == state.iterations() * p.expected, "wrong number of matches");
    state.SetItemsProcessed(matched);
}

void match_routes(benchmark::State &state, const filter_kind &kind, bool all_match) {
    const int entries = static_cast<int>(state.range(0));
    const match_plan p = plan(kind, entries, all_match);
    zeb::sub_route_list routes;
    if (!require(state, fill_table(entries, p.filter), "table not filled")) return;
    int64_t matched = 0;
    for (auto _ : state) {
        matched += zeb::sub_match_routes(p.topic.c_str(), &routes, zeb::SUB_MAX);
        benchmark::ClobberMemory();
    }
    require(state, matched == state.iterations() * p.expected && routes.count == p.expected,
            "wrong number of matches");
    state.SetItemsProcessed(matched);
}

void add_match_benchmarks() {
    for (const match_case &c : k_matches)
        benchmark::RegisterBenchmark((std::string("topic_match/") + c.name).c_str(), match_filter, c);
    for (const bool all_match : {false, true}) {
        for (const filter_kind &kind : k_kinds) {
            const std::string suffix = (all_match ? "all_match/" : "one_match/") + std::string(kind.name);
            auto *records =
                benchmark::RegisterBenchmark(("sub_match/" + suffix).c_str(), match_records, kind, all_match);
            auto *routes = benchmark::RegisterBenchmark(("sub_match_routes/" + suffix).c_str(), match_routes,
                                                        kind, all_match);
            for (auto *each : {records, routes}) {
                if (all_match)
                    each->Arg(10)->Arg(100)->Arg(1000);
                else
                    each->Arg(10)->Arg(1000)->Arg(zeb::SUB_MAX);
            }
        }
    }
}

[[maybe_unused]] const bool k_added = (add_match_benchmarks(), true);

// Leaves room for one.
constexpr int k_almost_full = zeb::SUB_MAX - 1;

void add_and_remove_newest(benchmark::State &state) {
    if (!require(state, fill_table(static_cast<int>(state.range(0)), k_kinds[0].own_filter), "no table"))
        return;
    int64_t done = 0;
    for (auto _ : state) {
        done += zeb::sub_add("newcomer", "bench/new/t", 1, 1) == 0 ? 1 : 0;
        done += zeb::sub_remove("newcomer", "bench/new/t");
    }
    require(state, done == 2 * state.iterations(), "not added and removed");
}
BENCHMARK(add_and_remove_newest)->Arg(10)->Arg(1000)->Arg(k_almost_full);

// The table keeps its order, so that all others move up when the first one goes.
void remove_oldest_and_add(benchmark::State &state) {
    const int entries = static_cast<int>(state.range(0));
    if (!require(state, fill_table(entries, k_kinds[0].own_filter), "no table")) return;
    int64_t done = 0;
    int oldest = 0;
    for (auto _ : state) {
        const std::string client = client_name(oldest);
        const std::string filter = numbered(k_kinds[0].own_filter, oldest);
        done += zeb::sub_remove(client.c_str(), filter.c_str());
        done += zeb::sub_add(client.c_str(), filter.c_str(), 1, 1) == 0 ? 1 : 0;
        oldest = (oldest + 1) % entries;
    }
    require(state, done == 2 * state.iterations() && zeb::g_sub_mgr.sub_count.load() == entries,
            "not removed and added");
}
BENCHMARK(remove_oldest_and_add)->Arg(10)->Arg(1000)->Arg(k_almost_full);

void add_again(benchmark::State &state) {
    const int entries = static_cast<int>(state.range(0));
    if (!require(state, fill_table(entries, k_kinds[0].own_filter), "no table")) return;
    const std::string client = client_name(entries / 2);
    const std::string filter = numbered(k_kinds[0].own_filter, entries / 2);
    int64_t done = 0;
    for (auto _ : state) done += zeb::sub_add(client.c_str(), filter.c_str(), 2, 1) == 0 ? 1 : 0;
    require(state, done == state.iterations() && zeb::g_sub_mgr.sub_count.load() == entries, "not updated");
}
BENCHMARK(add_again)->Arg(10)->Arg(1000)->Arg(k_almost_full);

}  // namespace

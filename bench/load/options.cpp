#include "options.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <system_error>
#include <variant>

#include "cast.h"
#include "identities.h"
#include "packets.h"

namespace zeb_load {

namespace {

enum : unsigned { k_connect = 1, k_idle = 2, k_traffic = 4, k_all = 7 };

constexpr uint64_t k_default_search_rate = 20000;
constexpr uint64_t k_max_connections = 60000;  // ports that a client address has
constexpr double k_max_seconds = 3600;
constexpr uint64_t k_max_pairs = 1u << 26;  // of publisher and subscriber, for the memory that each takes
constexpr uint64_t k_max_places = 1u << 22;
constexpr uint64_t k_max_in_flight = 1u << 24;
constexpr size_t k_max_prefix = 8;

using target = std::variant<uint64_t options::*, double options::*, std::string options::*, bool options::*>;

struct row {
    std::string_view name;
    target to;
    unsigned scenarios;
    double low;  // of numbers
    double high;
    std::string_view choices;  // of texts; empty: anything goes
    const char *help;
};

const row k_rows[] = {
    {"host", &options::host, k_all, 0, 0, "", "TEXT      address of the broker (127.0.0.1)"},
    {"port", &options::port, k_all, 1, 65535, "", "N         port of the broker (1883)"},
    {"pid", &options::pid, k_all, 1, 1 << 30, "",
     "PID       process of the broker, for its CPU time and memory"},
    {"name", &options::name, k_all, 0, 0, "", "TEXT      copied into the result"},
    {"keepalive", &options::keepalive_s, k_all, 0, 65535, "", "S         keep-alive, 0 for none (0)"},
    {"prefix", &options::prefix, k_all, 0, 0, "",
     "TEXT      begins identifiers and topics, 1 to 8 of [0-9a-z] (zl)"},
    {"spread-ids", &options::spread_ids, k_all, 0, 0, "",
     "          identifiers that share no slot of 11000 under h*31+c"},
    {"verbose", &options::verbose, k_all, 0, 0, "", "          progress on stderr"},
    {"connections", &options::connections, k_connect | k_idle, 1, k_max_connections, "",
     "N         connections to open (1000)"},
    {"window", &options::window, k_all, 1, k_max_connections, "", "W         opened at the same time (64)"},
    {"seconds", &options::seconds, k_idle | k_traffic, 0.05, k_max_seconds, "",
     "S         measured time (5)"},
    {"publishers", &options::publishers, k_traffic, 1, k_max_connections, "", "P         (1)"},
    {"subscribers", &options::subscribers, k_traffic, 0, k_max_connections, "", "S         (1)"},
    {"topics", &options::topics, k_traffic, 1, k_max_connections, "",
     "T         publisher i sends to i mod T, subscriber j takes j mod T (1)"},
    {"qos", &options::qos, k_traffic, 0, 2, "", "Q         of publishing and subscribing (0)"},
    {"payload", &options::payload, k_traffic, stamp::k_bytes, 1 << 20, "",
     "B         bytes, at least 24 (64)"},
    {"rate", &options::rate, k_traffic, 0, 100000000, "",
     "R         published per second in all, 0 for all that goes (0)"},
    {"pace", &options::pace, k_traffic, 0, 0, "smooth|burst",
     "smooth|burst  evenly, or --burst-ms at once (smooth)"},
    {"burst-ms", &options::burst_ms, k_traffic, 1, 10000, "", "MS        length of one burst's time (100)"},
    {"inflight", &options::inflight, k_traffic, 1, 30000, "",
     "N         unacknowledged of each publisher at QoS 1 and 2 (20)"},
    {"warmup", &options::warmup_s, k_traffic, 0, k_max_seconds, "",
     "W         time before the measured one (1)"},
    {"drain", &options::drain_s, k_traffic, 0, k_max_seconds, "",
     "D         longest wait for stragglers (2)"},
    {"others", &options::others, k_traffic, 0, 10000, "", "K         subscriptions that never match (0)"},
    {"other-filters", &options::other_filters, k_traffic, 0, 0, "exact|plus|hash|mixed",
     "exact|plus|hash|mixed  their form (exact)"},
    {"shared", &options::shared, k_traffic, 0, 1000, "",
     "G         subscriber j joins shared group j mod G; 0 for none (0)"},
    {"slow", &options::slow, k_traffic, 0, 10000, "", "K         more subscribers, which read slowly (0)"},
    {"slow-rate", &options::slow_rate, k_traffic, 1, 1 << 30, "",
     "B         bytes per second that each reads (1024)"},
    {"search", &options::search, k_traffic, 0, 0, "",
     "          look for the highest rate without loss, from --rate (20000)"},
    {"loss-ppm", &options::loss_ppm, k_traffic, 0, 1000000, "",
     "N         of a million that a probe of the search may lose (0)"},
};

unsigned scenario_bit(scenario what) {
    return 1u << static_cast<unsigned>(what);
}

template <typename number>
bool parse_number(const row &r, std::string_view text, number &out) {
    number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return false;
    // Written so that what is no number at all is refused.
    if (!(static_cast<double>(value) >= r.low && static_cast<double>(value) <= r.high)) return false;
    out = value;
    return true;
}

bool is_choice(std::string_view choices, std::string_view text) {
    while (!choices.empty()) {
        const size_t bar = choices.find('|');
        if (choices.substr(0, bar) == text) return true;
        choices = bar == std::string_view::npos ? "" : choices.substr(bar + 1);
    }
    return false;
}

bool store(const row &r, std::string_view text, options &out) {
    if (const auto *number = std::get_if<uint64_t options::*>(&r.to))
        return parse_number(r, text, out.**number);
    if (const auto *real = std::get_if<double options::*>(&r.to)) return parse_number(r, text, out.**real);
    if (!r.choices.empty() && !is_choice(r.choices, text)) return false;
    out.*std::get<std::string options::*>(r.to) = text;
    return true;
}

bool complain(const char *what, std::string_view about) {
    (void)fprintf(stderr, "zeb_load: %s '%.*s'; --help lists the options\n", what,
                  static_cast<int>(about.size()), about.data());
    return false;
}

const row *find_row(std::string_view name) {
    for (const row &r : k_rows) {
        if (r.name == name) return &r;
    }
    return nullptr;
}

bool parse_one(int argc, char **argv, int &at, options &out) {
    const std::string_view text = argv[at];
    const row *r = text.substr(0, 2) == "--" ? find_row(text.substr(2)) : nullptr;
    if (r == nullptr) return complain("unknown argument", text);
    if ((r->scenarios & scenario_bit(out.what)) == 0)
        return complain("not an option of this scenario:", text);
    if (const auto *flag = std::get_if<bool options::*>(&r->to)) {
        out.**flag = true;
        return true;
    }
    if (++at == argc) return complain("no value for", text);
    return store(*r, argv[at], out) || complain("invalid value for", text);
}

bool parse_scenario(std::string_view text, options &out) {
    constexpr std::string_view k_names[] = {"connect", "idle", "publish"};
    for (unsigned i = 0; i < 3; ++i) {
        if (k_names[i] == text) {
            out.what = static_cast<scenario>(i);
            return true;
        }
    }
    return complain("unknown scenario", text);
}

// What no single option can say.
bool fits_together(const options &o) {
    if (o.prefix.empty() || o.prefix.size() > k_max_prefix ||
        o.prefix.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyz") != std::string::npos)
        return complain("invalid value for", "--prefix");
    if (o.connection_count() > k_max_connections) return complain("too many connections:", "more than 60000");
    if (o.spread_ids && o.connection_count() > k_spread_slots)
        return complain("too many connections for", "--spread-ids");
    if (o.what == scenario::publish && (o.publishers / o.topics + 1) * o.subscribers > k_max_pairs)
        return complain("too many pairs of publisher and subscriber:", "use more topics");
    if (o.topics * o.shared > k_max_places || o.publishers * o.inflight > k_max_in_flight)
        return complain("too much memory for", "--topics times --shared, or --publishers times --inflight");
    return true;
}

}  // namespace

filter_form options::others_form() const {
    if (other_filters == "plus") return filter_form::plus;
    if (other_filters == "hash") return filter_form::hash;
    return other_filters == "mixed" ? filter_form::mixed : filter_form::exact;
}

uint64_t options::connection_count() const {
    if (what != scenario::publish) return connections;
    return publishers + subscribers + slow + std::min<uint64_t>(others, k_other_connections);
}

parsed parse_options(int argc, char **argv, options &out) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0) return parsed::help;
    }
    if (argc < 2) {
        complain("no scenario:", "connect, idle or publish");
        return parsed::wrong;
    }
    if (!parse_scenario(argv[1], out)) return parsed::wrong;
    for (int i = 2; i < argc; ++i) {
        if (!parse_one(argc, argv, i, out)) return parsed::wrong;
    }
    if (!fits_together(out)) return parsed::wrong;
    if (out.search && out.rate == 0) out.rate = k_default_search_rate;
    return parsed::run;
}

void print_help() {
    (void)fputs(
        "usage: zeb_load connect|idle|publish [options]\n"
        "\n"
        "Loads an MQTT 3.1.1 broker and prints one line of JSON.\n"
        "\n"
        "  connect   open connections and time it\n"
        "  idle      hold silent connections and look at the broker\n"
        "  publish   send stamped messages and time their arrival\n"
        "\n"
        "Options, in brackets their defaults; the letters say for which scenarios:\n",
        stdout);
    for (const row &r : k_rows) {
        (void)printf("  %c%c%c --%-13.*s %s\n", (r.scenarios & k_connect) != 0 ? 'c' : ' ',
                     (r.scenarios & k_idle) != 0 ? 'i' : ' ', (r.scenarios & k_traffic) != 0 ? 'p' : ' ',
                     static_cast<int>(r.name.size()), r.name.data(), r.help);
    }
    (void)fputs(
        "      --help\n"
        "\n"
        "Exit status: 0 when the run was done, 1 on errors, 2 on bad arguments.\n",
        stdout);
}

}  // namespace zeb_load

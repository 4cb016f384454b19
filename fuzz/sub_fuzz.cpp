// Topic filters against a slow reference, and the subscription table with its index against a plain list.
//
// An input is a row of steps on one table. Filters and topics come as raw text or, so that deep and alike
// ones are common, as one byte for each level.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/topic_reference.h"
#include "log/agent_log.h"
#include "sub/sub_index.h"
#include "sub/sub_mgr.h"
#include "sub/topic_filter.h"

using namespace zeb;
using namespace zeb_fuzz;

namespace {

constexpr std::size_t k_id_max = 64;
constexpr std::size_t k_filter_max = 2048;
constexpr int k_all = 11000;  // as routing asks for

struct entry {
    std::string id;
    std::string filter;
    uint32_t qos;
    uint8_t clean;
    uint32_t identifier;
};

// The table as it should be.
struct model {
    std::vector<entry> entries;

    entry *find(const std::string &id, const std::string &filter) {
        for (entry &e : entries)
            if (e.id == id && e.filter == filter) return &e;
        return nullptr;
    }
};

// Texts of the library end at their first NUL.
std::string until_nul(const std::string &text) {
    return text.c_str();
}

std::string level_text(uint8_t byte) {
    constexpr const char *common[] = {"",   "a",    "b",  "+", "#", "a", "+", "$share",
                                      "ab", "$SYS", "a+", "c", "",  "d", "e", "\xE4\xBD\xA0"};
    if (byte < 0xF0) return common[byte & 15];
    return std::string((byte & 15u) * 20u, 'l');
}

std::string read_text(fuzz_input *in) {
    const uint8_t levels = in->u8();
    if (levels >= 0x80) return until_nul(in->text());
    std::string out;
    for (int i = 0; i < levels % 40; ++i) out += (i > 0 ? "/" : "") + level_text(in->u8());
    return out;
}

std::string read_id(fuzz_input *in) {
    // The middle two have one hash, the last two are one identifier in the table.
    static const std::string ids[] = {"c0", "c1", "Aa", "BB", std::string(64, 'x'), std::string(70, 'x')};
    return ids[in->below(6)];
}

std::vector<const entry *> expected_matches(const model &m, const std::string &topic) {
    std::vector<const entry *> out;
    for (const entry &e : m.entries)
        if (reference_matches(e.filter, topic)) out.push_back(&e);
    return out;
}

void check_filter(const std::string &filter, const std::string &topic) {
    FUZZ_CHECK((mqtt_filter_is_valid(filter.c_str()) == 1) == reference_is_valid(filter));
    FUZZ_CHECK(reference_effective(filter) == topic_filter_effective(filter.c_str()));
    FUZZ_CHECK((topic_match_wildcard(filter.c_str(), topic.c_str()) == 1) ==
               reference_matches(filter, topic));
}

bool is_entry(const mqtt_subscription &sub, const entry &e) {
    return e.id == sub.client_id && e.filter == sub.topic_filter && e.qos == sub.qos &&
           e.clean == sub.clean_session && e.identifier == sub.subscription_identifier;
}

void check_match(const model &m, const std::string &topic, int limit) {
    std::vector<const entry *> expected = expected_matches(m, topic);
    if (static_cast<int>(expected.size()) > limit) expected.resize(static_cast<std::size_t>(limit));

    // Room for one more than there should be.
    const int room = limit == k_all ? static_cast<int>(expected.size()) + 1 : limit;
    std::vector<mqtt_subscription> copies(static_cast<std::size_t>(room));
    const int copied = sub_match(topic.c_str(), copies.data(), room);
    FUZZ_CHECK(copied == static_cast<int>(expected.size()));

    static sub_route_list routes;
    routes.all_filters = limit % 2 == 0;
    FUZZ_CHECK(sub_match_routes(topic.c_str(), &routes, limit) == copied && routes.count == copied);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        FUZZ_CHECK(is_entry(copies[i], *expected[i]));
        const sub_route &route = routes.routes[i];
        const bool shared = expected[i]->filter.compare(0, 7, "$share/") == 0;
        FUZZ_CHECK(expected[i]->id == route.client_id && expected[i]->qos == route.qos);
        FUZZ_CHECK(route.shared == shared);
        FUZZ_CHECK(expected[i]->filter == route.filter || (route.filter[0] == '\0' && !shared));
        FUZZ_CHECK(!routes.all_filters || route.filter[0] != '\0');
    }
}

void check_table(const model &m) {
    const int count = g_sub_mgr.sub_count.load();
    FUZZ_CHECK(count == static_cast<int>(m.entries.size()));
    FUZZ_CHECK(g_sub_mgr.index != nullptr && sub_index_is_current(g_sub_mgr.index, g_sub_mgr.subs, count));
    for (int pos = 0; pos < count; ++pos) {
        const entry &e = m.entries[static_cast<std::size_t>(pos)];
        FUZZ_CHECK(is_entry(g_sub_mgr.subs[pos], e));
        sub_positions pair;
        sub_index_find_client(g_sub_mgr.index, e.id.c_str(), e.filter.c_str(), &pair);
        FUZZ_CHECK(pair.has(pos));
        const bool perhaps_cut = e.id.size() == k_id_max || e.filter.size() == k_filter_max;
        FUZZ_CHECK(pair.count() == 1 || perhaps_cut);
    }
}

void check_client(const model &m, const std::string &id) {
    sub_positions expected;
    for (std::size_t i = 0; i < m.entries.size(); ++i)
        if (m.entries[i].id == id) expected.add(static_cast<int>(i));
    FUZZ_CHECK(sub_get_client_sub_count(id.c_str()) == expected.count());
    sub_positions found;
    sub_index_find_client(g_sub_mgr.index, id.c_str(), nullptr, &found);
    FUZZ_CHECK(found.count() == expected.count());
    for (int pos = expected.next(0); pos >= 0; pos = expected.next(pos + 1)) FUZZ_CHECK(found.has(pos));
}

void add(model *m, fuzz_input *in) {
    const std::string id = read_id(in);
    const uint8_t values = in->u8();
    const entry wanted{id.substr(0, k_id_max), read_text(in), values & 3u,
                       static_cast<uint8_t>(values >> 2 & 1), values >> 3 & 1u ? 1u + (values >> 4) : 0u};
    const int rc =
        sub_add_with_id(id.c_str(), wanted.filter.c_str(), wanted.qos, wanted.clean, wanted.identifier);
    if (wanted.qos > 2 || !reference_is_valid(wanted.filter)) {
        FUZZ_CHECK(rc == -1);
        return;
    }
    FUZZ_CHECK(rc == 0);
    // A text beyond its field is looked up whole and stored cut, so it is a new entry each time.
    const std::string stored = wanted.filter.substr(0, k_filter_max);
    entry *old = m->find(id, wanted.filter);
    if (old == nullptr) {
        m->entries.push_back(wanted);
        m->entries.back().filter = stored;
        return;
    }
    old->qos = wanted.qos;
    old->clean = wanted.clean;
    if (wanted.identifier != 0) old->identifier = wanted.identifier;
}

void remove(model *m, const std::string &id, const std::string *filter) {
    std::vector<entry> kept;
    for (const entry &e : m->entries)
        if (e.id != id || (filter != nullptr && e.filter != *filter)) kept.push_back(e);
    const std::size_t gone = m->entries.size() - kept.size();
    m->entries = kept;
    FUZZ_CHECK(sub_remove(id.c_str(), filter != nullptr ? filter->c_str() : nullptr) ==
               static_cast<int>(gone));
}

void check_identifier(const model &m, uint32_t identifier) {
    const auto out = std::make_unique<mqtt_subscription>();
    const entry *first = nullptr;
    for (const entry &e : m.entries)
        if (first == nullptr && identifier != 0 && e.identifier == identifier) first = &e;
    FUZZ_CHECK(sub_find_by_identifier(identifier, out.get()) == (first != nullptr ? 0 : -1));
    if (first != nullptr) FUZZ_CHECK(is_entry(*out, *first));
}

void step(model *m, fuzz_input *in) {
    switch (in->u8() % 8) {
        case 0:
        case 1:
            return add(m, in);
        case 2: {
            const std::string id = read_id(in);
            const std::string filter = read_text(in);
            return remove(m, id, &filter);
        }
        case 3:
            return remove(m, read_id(in), nullptr);
        case 4: {
            const std::string filter = read_text(in);
            return check_filter(filter, read_text(in));
        }
        case 5: {
            const int limit = in->below(4) == 0 ? 1 : k_all;
            return check_match(*m, read_text(in), limit);
        }
        case 6:
            check_identifier(*m, in->below(18));
            return check_client(*m, read_id(in));
        default:
            // As after somebody stored into the table directly.
            sub_index_rebuild(g_sub_mgr.index, g_sub_mgr.subs, g_sub_mgr.sub_count.load());
    }
}

void forget_all(const model &m) {
    std::set<std::string> ids;
    for (const entry &e : m.entries) ids.insert(e.id);
    for (const std::string &id : ids) FUZZ_CHECK(sub_remove(id.c_str(), nullptr) > 0);
    FUZZ_CHECK(g_sub_mgr.sub_count.load() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    agent_log_set_level(AGENT_LOG_FATAL);
    FUZZ_CHECK(sub_init() == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr int k_steps_max = 400;
    fuzz_input in(data, size);
    model m;
    for (int i = 0; i < k_steps_max && !in.empty(); ++i) {
        step(&m, &in);
        // The whole table after every step would take most of the time.
        if (m.entries.size() < 16 || i % 32 == 0) check_table(m);
    }
    check_table(m);
    forget_all(m);
    return 0;
}

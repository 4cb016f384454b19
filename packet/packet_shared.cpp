// Shared subscriptions: one member of each group gets a publication.
//
// A group's pool are all entries whose text after "$share/" begins with the group's name, so members of "ab"
// are candidates of "a" as well, whatever they filter: kept. Sorting the texts makes each pool one contiguous
// range, so that ten thousand groups cost no ten thousand walks.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "packet/packet_handler.h"
#include "packet/packet_internal.h"

namespace zeb {

std::atomic<int32_t> g_rr_counter{0};

namespace {

constexpr std::size_t k_prefix_len = 7;  // "$share/"
constexpr std::size_t k_max_name = 255;

struct member {
    const char *text;      // behind "$share/"
    std::size_t name_len;  // up to the next "/"
    int index;             // in the match list
};

struct group {
    const char *name;
    std::size_t name_len;
    int first;  // the match-list entry that opens the group: groups are served in this order
};

bool starts_before(const member &m, const group &g) {
    return strncmp(m.text, g.name, g.name_len) < 0;
}

bool ends_after(const group &g, const member &m) {
    return strncmp(m.text, g.name, g.name_len) > 0;
}

// Chooses the member at the counter's position, counted in the order of the match list.
void serve(const group &g, const member *members, const member *end, int *scratch, uint8_t *selected) {
    const member *low = std::lower_bound(members, end, g, starts_before);
    const member *high = std::upper_bound(low, end, g, ends_after);
    const std::ptrdiff_t size = high - low;
    if (size == 0) return;
    for (std::ptrdiff_t i = 0; i < size; ++i) scratch[i] = low[i].index;
    const uint32_t turn = static_cast<uint32_t>(g_rr_counter.fetch_add(1, std::memory_order_relaxed));
    const std::ptrdiff_t position = static_cast<std::ptrdiff_t>(turn % static_cast<uint32_t>(size));
    std::nth_element(scratch, scratch + position, scratch + size);
    selected[scratch[position]] = 1;
}

// In the sorted list all members of one name stand together: they are a prefix range, the "/" included.
int collect_groups(const member *members, const member *end, group *groups) {
    int count = 0;
    for (const member *m = members; m != end; ++m) {
        if (m->name_len > k_max_name) continue;
        group *last = count == 0 ? nullptr : &groups[count - 1];
        if (last != nullptr && last->name_len == m->name_len && memcmp(last->name, m->text, m->name_len) == 0)
            last->first = std::min(last->first, m->index);
        else
            groups[count++] = {m->text, m->name_len, m->index};
    }
    std::sort(groups, groups + count, [](const group &a, const group &b) { return a.first < b.first; });
    return count;
}

// filter(i) gives the filter of entry i. False when memory is short; nothing is selected then.
template <typename Filter>
bool mark_selected(Filter filter, int count, uint8_t *selected) {
    const std::size_t n = static_cast<std::size_t>(count);
    void *memory = malloc(n * (sizeof(member) + sizeof(group) + sizeof(int)));
    if (memory == nullptr) return false;
    member *members = static_cast<member *>(memory);
    group *groups = reinterpret_cast<group *>(members + n);
    int *scratch = reinterpret_cast<int *>(groups + n);
    member *end = members;
    for (int i = 0; i < count; ++i) {
        if (!packet_is_shared_filter(filter(i))) continue;
        const char *text = filter(i) + k_prefix_len;
        const char *slash = strchr(text, '/');
        if (slash != nullptr) *end++ = {text, static_cast<std::size_t>(slash - text), i};
    }
    std::sort(members, end, [](const member &a, const member &b) { return strcmp(a.text, b.text) < 0; });
    const int group_count = collect_groups(members, end, groups);
    for (int i = 0; i < group_count; ++i) serve(groups[i], members, end, scratch, selected);
    free(memory);
    return true;
}

}  // namespace

void shared_sub_mark_selected(const mqtt_subscription *subs, int count, uint8_t *selected) {
    if (subs == nullptr || selected == nullptr || count < 1) return;
    mark_selected([subs](int i) { return subs[i].topic_filter; }, count, selected);
}

bool packet_mark_shared(const sub_route *routes, int count, uint8_t *selected) {
    return mark_selected([routes](int i) { return routes[i].filter; }, count, selected);
}

}  // namespace zeb

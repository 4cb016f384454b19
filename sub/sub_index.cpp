#include "sub/sub_index.h"

#include <cstring>

#include "log/platform_memory.h"
#include "sub/cid_hash.h"
#include "sub/filter_trie.h"
#include "sub/id_pool.h"
#include "sub/text_hash.h"
#include "sub/topic_filter.h"

namespace zeb {

namespace {

constexpr int k_buckets = 1 << 14;

// One per entry of the table. It keeps its number while the entry moves.
struct index_entry {
    id_link link;         // free list only
    id_link same_client;  // bucket of cid_hash
    id_link same_pair;    // bucket of pair_hash
    id_link same_filter;  // members of the group
    int32_t pos;
    int32_t group;
    uint32_t cid_hash;
    uint32_t pair_hash;
    char client_id[65];  // a copy: routing then need not touch the large entries
    uint8_t qos;
    bool shared;
};

// The entries that have one effective filter, in table order. The filter is asked about once for all of them;
// its text is that of the first member.
struct index_group {
    id_link link;  // groups of one node
    id_list members;
    int32_t node;
    uint32_t hash;  // text_hash of the effective filter
    bool open_ended;
};

uint32_t hash_pair(const char *client_id, const char *topic_filter) {
    return text_hash(topic_filter, text_hash_byte(text_hash(client_id), '\0'));
}

}  // namespace

struct sub_index {
    const mqtt_subscription *subs;
    int count;
    int32_t entry_at[SUB_MAX];  // by position
    id_list by_client[k_buckets];
    id_list by_pair[k_buckets];
    id_pool<index_entry, SUB_MAX> entries;
    id_pool<index_group, SUB_MAX> groups;
    filter_trie trie;
};

namespace {

const char *filter_of_group(const sub_index *index, int32_t group) {
    const int32_t first = index->groups[group].members.first;
    return index->subs[index->entries[first].pos].topic_filter;
}

int32_t find_group(const sub_index *index, int32_t node, const char *effective, uint32_t hash) {
    int32_t group = index->trie.nodes[node].groups.first;
    for (; group != 0; group = index->groups[group].link.next)
        if (index->groups[group].hash == hash &&
            std::strcmp(topic_filter_effective(filter_of_group(index, group)), effective) == 0)
            break;
    return group;
}

int32_t enter_group(sub_index *index, const char *topic_filter) {
    const char *effective = topic_filter_effective(topic_filter);
    const filter_trie_place place = index->trie.enter(effective);
    const uint32_t hash = text_hash(effective);
    int32_t group = find_group(index, place.node, effective, hash);
    if (group != 0) return group;
    group = index->groups.take();
    index->groups[group].node = place.node;
    index->groups[group].hash = hash;
    index->groups[group].open_ended = place.open_ended;
    index->trie.nodes[place.node].groups.append(index->groups, &index_group::link, group);
    return group;
}

void leave_group(sub_index *index, int32_t id) {
    const int32_t group = index->entries[id].group;
    index->groups[group].members.remove(index->entries, &index_entry::same_filter, id);
    if (index->groups[group].members.first != 0) return;
    const int32_t node = index->groups[group].node;
    index->trie.nodes[node].groups.remove(index->groups, &index_group::link, group);
    index->groups.give(group);
    index->trie.prune(node);
}

void find_pair(const sub_index *index, const char *client_id, const char *topic_filter, sub_positions *out) {
    const uint32_t hash = hash_pair(client_id, topic_filter);
    int32_t id = index->by_pair[hash % k_buckets].first;
    for (; id != 0; id = index->entries[id].same_pair.next) {
        const index_entry &entry = index->entries[id];
        if (entry.pair_hash == hash && std::strcmp(entry.client_id, client_id) == 0 &&
            std::strcmp(index->subs[entry.pos].topic_filter, topic_filter) == 0)
            out->add(entry.pos);
    }
}

}  // namespace

sub_index *sub_index_create(const mqtt_subscription *subs) {
    auto *index = static_cast<sub_index *>(platform_zero_alloc(sizeof(sub_index)));
    if (index == nullptr) return nullptr;
    index->subs = subs;
    index->trie.start();
    return index;
}

void sub_index_destroy(sub_index *index) {
    platform_zero_free(index, sizeof *index);
}

bool sub_index_is_current(const sub_index *index, const mqtt_subscription *subs, int count) {
    return index->subs == subs && index->count == count;
}

void sub_index_rebuild(sub_index *index, const mqtt_subscription *subs, int count) {
    std::memset(index->by_client, 0, sizeof index->by_client);
    std::memset(index->by_pair, 0, sizeof index->by_pair);
    index->entries.clear();
    index->groups.clear();
    index->trie.clear();
    index->subs = subs;
    index->count = 0;
    for (int pos = 0; pos < count; ++pos) sub_index_append(index, pos);
}

void sub_index_append(sub_index *index, int pos) {
    const mqtt_subscription &sub = index->subs[pos];
    const int32_t id = index->entries.take();
    index_entry &entry = index->entries[id];
    entry.pos = pos;
    std::memcpy(entry.client_id, sub.client_id, strnlen(sub.client_id, sizeof entry.client_id - 1));
    entry.cid_hash = cid_hash(sub.client_id);
    entry.pair_hash = hash_pair(sub.client_id, sub.topic_filter);
    entry.shared = topic_filter_is_shared(sub.topic_filter);
    index->entry_at[pos] = id;
    ++index->count;

    index->by_client[entry.cid_hash % k_buckets].append(index->entries, &index_entry::same_client, id);
    index->by_pair[entry.pair_hash % k_buckets].append(index->entries, &index_entry::same_pair, id);
    entry.group = enter_group(index, sub.topic_filter);
    index->groups[entry.group].members.append(index->entries, &index_entry::same_filter, id);
    sub_index_update(index, pos);
}

void sub_index_update(sub_index *index, int pos) {
    index->entries[index->entry_at[pos]].qos = static_cast<uint8_t>(index->subs[pos].qos);
}

void sub_index_drop(sub_index *index, int pos) {
    const int32_t id = index->entry_at[pos];
    const index_entry &entry = index->entries[id];
    index->by_client[entry.cid_hash % k_buckets].remove(index->entries, &index_entry::same_client, id);
    index->by_pair[entry.pair_hash % k_buckets].remove(index->entries, &index_entry::same_pair, id);
    leave_group(index, id);
    index->entries.give(id);
    --index->count;
}

void sub_index_move(sub_index *index, int from, int to) {
    const int32_t id = index->entry_at[from];
    index->entry_at[to] = id;
    index->entries[id].pos = to;
}

void sub_index_find_client(const sub_index *index, const char *client_id, const char *topic_filter,
                           sub_positions *out) {
    if (topic_filter != nullptr) {
        find_pair(index, client_id, topic_filter, out);
        return;
    }
    const uint32_t hash = cid_hash(client_id);
    int32_t id = index->by_client[hash % k_buckets].first;
    for (; id != 0; id = index->entries[id].same_client.next) {
        const index_entry &entry = index->entries[id];
        if (entry.cid_hash == hash && std::strcmp(entry.client_id, client_id) == 0) out->add(entry.pos);
    }
}

void sub_index_find_topic(const sub_index *index, const char *topic, sub_positions *out) {
    index->trie.visit(topic, [&](const id_list &groups, bool beyond) {
        for (int32_t group = groups.first; group != 0; group = index->groups[group].link.next) {
            const index_group &g = index->groups[group];
            if (beyond && !g.open_ended) continue;
            if (topic_match_wildcard(filter_of_group(index, group), topic) == 0) continue;
            for (int32_t id = g.members.first; id != 0; id = index->entries[id].same_filter.next)
                out->add(index->entries[id].pos);
        }
    });
}

void sub_index_route(const sub_index *index, int pos, sub_route *out) {
    const index_entry &entry = index->entries[index->entry_at[pos]];
    std::memcpy(out->client_id, entry.client_id, sizeof out->client_id);
    out->qos = entry.qos;
    out->shared = entry.shared;
    out->cid_hash = entry.cid_hash;
    out->filter = "";
}

}  // namespace zeb

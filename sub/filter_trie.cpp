#include "sub/filter_trie.h"

#include <cstring>

#include "sub/text_hash.h"

namespace zeb {

namespace {

// Hashes one level and moves *text behind it: onto the "/" or the end.
uint32_t hash_level(const char **text) {
    uint32_t h = TEXT_HASH_START;
    const char *p = *text;
    for (; *p != '\0' && *p != '/'; ++p) h = text_hash_byte(h, *p);
    *text = p;
    return h;
}

}  // namespace

filter_trie::path::path(const char *topic) : levels(0) {
    for (const char *p = topic;; ++p) {
        if (levels < FILTER_TRIE_DEPTH)
            label[levels] = hash_level(&p);
        else
            p += std::strcspn(p, "/");
        ++levels;
        if (*p == '\0') return;
    }
}

void filter_trie::start() {
    (void)nodes.take();  // the root, number 1
}

void filter_trie::clear() {
    std::memset(buckets, 0, sizeof buckets);
    nodes.clear();
    start();
}

int32_t filter_trie::bucket_of(int32_t parent, uint32_t label) {
    const uint32_t h = (label ^ static_cast<uint32_t>(parent) * 2654435761u) * 2246822519u;
    return static_cast<int32_t>((h ^ h >> 15) % k_buckets);
}

int32_t filter_trie::find_child(int32_t parent, uint32_t label) const {
    int32_t id = buckets[bucket_of(parent, label)].first;
    while (id != 0 && (nodes[id].parent != parent || nodes[id].label != label)) id = nodes[id].link.next;
    return id;
}

int32_t filter_trie::add_child(int32_t parent, uint32_t label, bool is_plus) {
    const int32_t id = nodes.take();
    nodes[id].parent = parent;
    nodes[id].label = label;
    nodes[id].is_plus = is_plus;
    ++nodes[parent].children;
    if (is_plus)
        nodes[parent].plus = id;
    else
        buckets[bucket_of(parent, label)].append(nodes, &filter_trie_node::link, id);
    return id;
}

filter_trie_place filter_trie::enter(const char *effective) {
    int32_t node = 1;
    if (*effective == '\0') return {node, true};
    const char *p = effective;
    for (int depth = 0;; ++depth, ++p) {
        if (depth == FILTER_TRIE_DEPTH || std::strcmp(p, "#") == 0) return {node, true};
        const bool is_plus = p[0] == '+' && (p[1] == '/' || p[1] == '\0');
        const uint32_t label = hash_level(&p);
        const int32_t child = is_plus ? nodes[node].plus : find_child(node, label);
        node = child != 0 ? child : add_child(node, label, is_plus);
        if (*p == '\0') return {node, false};
    }
}

void filter_trie::prune(int32_t node) {
    while (node != 1 && nodes[node].groups.first == 0 && nodes[node].children == 0) {
        const int32_t parent = nodes[node].parent;
        if (nodes[node].is_plus)
            nodes[parent].plus = 0;
        else
            buckets[bucket_of(parent, nodes[node].label)].remove(nodes, &filter_trie_node::link, node);
        --nodes[parent].children;
        nodes.give(node);
        node = parent;
    }
}

}  // namespace zeb

#pragma once

#include <cstdint>

#include "sub/id_pool.h"
#include "sub/sub_mgr.h"

namespace zeb {

// A trie over the levels of topic filters. It only narrows the search: every filter that can match a topic
// hangs on a node that visit() reaches, and the caller asks topic_match_wildcard about what it finds there.
// Nodes are therefore named by the hash of a level instead of its text; two texts with one hash share a node
// and cost a comparison, never a wrong answer. A trailing "#" has no node, its filter hangs on the node of
// what precedes it.
//
// Not locked; the owner's lock guards it.

// Deeper filters hang on the node of their first levels. So filters of a thousand levels each stay cheap, and
// as "+" doubles the ways at most once per level, no topic leads through more than some thousand nodes.
inline constexpr int FILTER_TRIE_DEPTH = 12;

struct filter_trie_node {
    id_link link;      // siblings in the bucket of (parent, label)
    int32_t parent;    // 0 for the root
    uint32_t label;    // hash of the level; unused for a "+" node
    int32_t plus;      // the child that stands for "+"
    int32_t children;  // "+" included
    id_list groups;    // what hangs here, the owner's
    bool is_plus;
};

// Where a filter hangs, and what the owner has to know to skip it cheaply.
struct filter_trie_place {
    int32_t node;
    bool open_ended;  // the filter may match topics of more levels than the node is deep, but for a trailing
                      // "/"
};

struct filter_trie {
    static constexpr int k_buckets = 1 << 16;

    id_list buckets[k_buckets];
    id_pool<filter_trie_node, SUB_MAX * FILTER_TRIE_DEPTH + 1> nodes;

    void start();  // on zero-filled memory
    void clear();

    // Finds or makes the path of an effective filter. An empty one hangs on the root: it matches nothing, but
    // the matcher reports it with every topic, as it would in a walk over the table. There is a node for
    // every level of every subscription, so this cannot fail while the owner holds at most SUB_MAX filters.
    filter_trie_place enter(const char *effective);

    // Removes a node on which nothing hangs any more, and then its parents likewise.
    void prune(int32_t node);

    // Calls visit(groups, beyond) for the groups of every node on the way of the topic. `beyond` is set when
    // the topic goes on for more than one level below the node: then only open-ended filters can match.
    template <class Visit>
    void visit(const char *topic, Visit visit) const {
        path way(topic);
        walk(1, 0, way, visit);
    }

  private:
    struct path {
        explicit path(const char *topic);
        uint32_t label[FILTER_TRIE_DEPTH];
        int levels;
    };

    static int32_t bucket_of(int32_t parent, uint32_t label);
    int32_t find_child(int32_t parent, uint32_t label) const;
    int32_t add_child(int32_t parent, uint32_t label, bool is_plus);

    template <class Visit>
    void walk(int32_t id, int depth, const path &way, Visit &visit) const {
        const filter_trie_node &node = nodes[id];
        if (node.groups.first != 0) visit(node.groups, way.levels > depth + 1);
        if (depth == FILTER_TRIE_DEPTH || depth == way.levels || node.children == 0) return;
        if (node.plus != 0) walk(node.plus, depth + 1, way, visit);
        if (node.children == (node.plus != 0 ? 1 : 0)) return;
        const int32_t child = find_child(id, way.label[depth]);
        if (child != 0) walk(child, depth + 1, way, visit);
    }
};

}  // namespace zeb

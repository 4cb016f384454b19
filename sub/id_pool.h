#pragma once

#include <cstdint>
#include <cstring>

namespace zeb {

// Building blocks of the subscription index. Everything is named by a 32-bit number from 1 up, 0 is "none": a
// zero-filled block of memory is then a valid empty structure, and pages that nobody needed stay untouched.

struct id_link {
    int32_t prev;
    int32_t next;
};

// A fixed number of items. T has an id_link `link`, which is free for the owner while the item is taken.
template <class T, int N>
struct id_pool {
    int32_t used;      // items 1..used have been taken at some time
    int32_t released;  // first of the items given back
    T items[N + 1];

    T &operator[](int32_t id) { return items[id]; }
    const T &operator[](int32_t id) const { return items[id]; }

    // A zeroed item; 0 when all are taken.
    int32_t take() {
        int32_t id = released;
        if (id != 0)
            released = items[id].link.next;
        else if (used < N)
            id = ++used;
        if (id != 0) std::memset(&items[id], 0, sizeof items[id]);
        return id;
    }
    void give(int32_t id) {
        items[id].link.next = released;
        released = id;
    }
    void clear() { used = released = 0; }
};

// A doubly linked list through one of the links of an item. Appending keeps the order of insertion.
struct id_list {
    int32_t first;
    int32_t last;

    template <class Pool, class T>
    void append(Pool &pool, id_link T::*link, int32_t id) {
        pool[id].*link = {last, 0};
        if (last != 0)
            (pool[last].*link).next = id;
        else
            first = id;
        last = id;
    }
    template <class Pool, class T>
    void remove(Pool &pool, id_link T::*link, int32_t id) {
        const id_link gone = pool[id].*link;
        if (gone.prev != 0)
            (pool[gone.prev].*link).next = gone.next;
        else
            first = gone.next;
        if (gone.next != 0)
            (pool[gone.next].*link).prev = gone.prev;
        else
            last = gone.prev;
    }
};

}  // namespace zeb

#include "sub/sub_route.h"

#include <cstring>
#include <new>

namespace zeb {

namespace {

// Rounding up keeps a slowly growing list from allocating for every publication.
constexpr size_t k_first_room = 64;

template <class T>
bool grow(T **block, size_t wanted) {
    T *grown = new (std::nothrow) T[wanted];
    if (grown == nullptr) return false;
    delete[] * block;
    *block = grown;
    return true;
}

size_t next_room(size_t room, size_t wanted) {
    if (room < k_first_room) room = k_first_room;
    while (room < wanted) room *= 2;
    return room;
}

}  // namespace

sub_route_list::~sub_route_list() {
    delete[] routes;
    delete[] text_;
}

bool sub_route_list::reserve_routes(int wanted) {
    count = 0;
    if (wanted <= route_room_) return true;
    const size_t room = next_room(static_cast<size_t>(route_room_), static_cast<size_t>(wanted));
    if (!grow(&routes, room)) return false;
    route_room_ = static_cast<int>(room);
    return true;
}

bool sub_route_list::reserve_text(size_t wanted) {
    text_used_ = 0;
    if (wanted <= text_room_) return true;
    const size_t room = next_room(text_room_, wanted);
    if (!grow(&text_, room)) return false;
    text_room_ = room;
    return true;
}

const char *sub_route_list::keep_text(const char *text) {
    const size_t size = std::strlen(text) + 1;
    char *kept = text_ + text_used_;
    std::memcpy(kept, text, size);
    text_used_ += size;
    return kept;
}

}  // namespace zeb

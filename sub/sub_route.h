#pragma once

#include <cstddef>
#include <cstdint>

namespace zeb {

// One receiver of a publication: what routing needs of a subscription.
struct sub_route {
    char client_id[65];
    uint8_t qos;
    bool shared;         // the filter begins with "$share/"
    uint32_t cid_hash;   // of client_id, for the client tables
    const char *filter;  // in the list's own memory; "" for a plain subscription unless all_filters is set
};

// The receivers of one publication. The caller keeps it from one publication to the next, so that its memory
// is allocated once; it belongs to one thread at a time. The routes and their filters hold until the next
// sub_match_routes on the same list.
class sub_route_list {
  public:
    sub_route_list() = default;
    ~sub_route_list();
    sub_route_list(const sub_route_list &) = delete;
    sub_route_list &operator=(const sub_route_list &) = delete;

    sub_route *routes = nullptr;
    int count = 0;
    bool all_filters = false;  // also give the filters of plain subscriptions

    // Forget what was held and make room for that many routes, or bytes of filters. False when there is no
    // memory; the list is then empty and stays usable.
    bool reserve_routes(int wanted);
    bool reserve_text(size_t wanted);
    // Copies a filter, terminator included, into the room reserved for it.
    const char *keep_text(const char *text);

  private:
    int route_room_ = 0;
    char *text_ = nullptr;
    size_t text_room_ = 0;
    size_t text_used_ = 0;
};

}  // namespace zeb

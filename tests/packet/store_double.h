#pragma once

// Stand-ins for the stored sessions and for reliable delivery: they hold what a test says and write down each
// call. The linker puts them in front of the library's (--wrap, in store_double.cpp); a program without it
// has the real ones.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/packet/packet_bytes.h"

namespace zeb_test {

struct stored_message {
    uint16_t id;
    std::string topic;
    std::string payload;
    int qos;
};

struct stored_session {
    std::vector<filter_request> subs;
    std::vector<stored_message> messages;
    std::string will_topic;  // empty: no will
    std::string will_payload;
    uint32_t will_len = 0;
    int will_qos = 0;
};

struct store_double {
    std::map<std::string, stored_session> sessions;
    int load_result = 0;
    bool cut_will_topic = false;        // as a file that ends there
    bool end_before_additions = false;  // sessions end after they were found
    texts calls;
};

inline store_double &store() {
    static store_double the_store;
    return the_store;
}

// The calls since the last look.
inline texts calls() {
    texts out;
    out.swap(store().calls);
    return out;
}

}  // namespace zeb_test

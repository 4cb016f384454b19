#pragma once

// Listens to what the client manager asks of the persistence module: the linker (--wrap) puts these functions
// before the real ones, which then do their work.

#include <string>
#include <vector>

#include "persist/persist.h"

namespace zeb_test {

struct persist_spy {
    std::vector<int> marked;           // kinds
    std::vector<std::string> removed;  // identifiers
};

inline persist_spy g_persist_spy;

}  // namespace zeb_test

extern "C" {

void __real__ZN3zeb12persist_markEPNS_15persist_sessionEi(zeb::persist_session *rec, int kinds);
int __real__ZN3zeb14persist_removeEPKc(const char *client_id);

void __wrap__ZN3zeb12persist_markEPNS_15persist_sessionEi(zeb::persist_session *rec, int kinds) {
    zeb_test::g_persist_spy.marked.push_back(kinds);
    __real__ZN3zeb12persist_markEPNS_15persist_sessionEi(rec, kinds);
}

int __wrap__ZN3zeb14persist_removeEPKc(const char *client_id) {
    zeb_test::g_persist_spy.removed.emplace_back(client_id);
    return __real__ZN3zeb14persist_removeEPKc(client_id);
}

}  // extern "C"

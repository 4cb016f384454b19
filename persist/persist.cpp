// Nothing is stored yet: sessions, offline and retained messages live as long as the process.
#include "persist/persist.h"

namespace zeb {

char g_persist_root_path[512] = "./mqtt_data";
std::mutex g_persist_mutex;

int persist_init(const char *) {
    return 0;
}

void persist_destroy() {}

void persist_flush() {}

void persist_mark(persist_session *, int) {}

int persist_load(persist_session *rec) {
    bool found = false;
    return persist_load_found(rec, &found);
}

int persist_load_found(persist_session *rec, bool *found) {
    *found = false;
    return rec == nullptr || rec->client_id[0] == '\0' ? -1 : 0;
}

int persist_remove(const char *client_id) {
    return client_id == nullptr ? -1 : 0;
}

void persist_add_offline_msg(const char *, const char *, const uint8_t *, int, int) {}

int persist_retain_save() {
    return 0;
}

}  // namespace zeb

#pragma once

#include <cstdint>
#include <mutex>

// What survives the process: up to three small text files per client and the retained messages in one binary
// file; docs/persistence.md shows them. Everything is written at once, on the calling
// thread. Any thread may call anything here.
//
// Locks: g_persist_mutex, then the module's own lock over the clients' files, then g_sub_mgr.lock for the
// copy of the retained store. Nobody calls persist_* with g_sub_mgr.lock held. Reading and changing a
// client's files exclude each other, so that nobody meets a file between its removal and its replacement, and
// of two changes of one queue none is lost. The lock over the clients' files is handed on in the order of
// arrival: whoever needs it waits for one operation, disk included, of each thread that came before. Those
// that only change a queue do without g_persist_mutex, so that a retained message waits for none of them
// unless a load that holds it does. persist_flush_single and persist_safe_write take no lock.

namespace zeb {

// Kinds of files, a bit set.
enum persist_kind { PERSIST_SESSION = 1, PERSIST_SUBS = 2, PERSIST_MSGS = 4 };

inline constexpr int PERSIST_MAX_SUBS = 64;
inline constexpr int PERSIST_MAX_MSGS = 100;
inline constexpr int PERSIST_MAX_PAYLOAD = 1024;

struct persist_sub {
    char topic[256];
    uint8_t qos;
};

struct persist_msg {
    uint16_t msgid;
    char topic[256];
    uint8_t payload[1024];
    uint32_t payload_len;
    uint8_t qos;
    int64_t stored_at;  // wall-clock seconds, memory only
};

struct persist_session {
    char client_id[128];
    uint8_t clean_session;
    uint8_t clean_start;
    uint32_t session_expiry_interval;
    uint64_t session_expiry_deadline;
    uint64_t last_online;
    uint8_t will_flag;
    char will_topic[256];
    uint8_t will_qos;
    uint8_t will_payload[1024];
    uint32_t will_len;
    uint32_t will_delay_interval;
    uint32_t will_msg_expiry_interval;
    uint8_t will_payload_format;
    char will_content_type[64];
    char will_response_topic[256];
    uint32_t will_correlation_len;
    persist_sub subs[PERSIST_MAX_SUBS];
    int sub_count;
    persist_msg msgs[PERSIST_MAX_MSGS];
    int msg_count;
};

extern char g_persist_root_path[512];  // initially "./mqtt_data"
extern std::mutex g_persist_mutex;

int persist_init(const char *root);  // always 0
void persist_destroy();
void persist_stop();
void persist_flush();
void persist_clean_expire();

void persist_mark(persist_session *rec, int kinds);
int persist_load(persist_session *rec);  // 0; -1 bad argument; -5 out of memory
// As persist_load; *found tells whether any of the client's files could be opened, which is what makes a
// stored session: the result alone does not say, a client without files loads as well.
int persist_load_found(persist_session *rec, bool *found);
int persist_load_client_only(persist_session *rec);  // 0; -1 bad argument; -4 no subscription file
int persist_remove(const char *client_id);           // 0; -1 null; -5 out of memory
void persist_add_offline_msg(const char *client_id, const char *topic, const uint8_t *payload, int len,
                             int qos);
// The same for a client that has a stored session at that very moment; false when it has none. Whether it has
// one cannot be asked before: it may be removed in between, and would come back as a file of messages.
bool persist_add_msg_to_stored(const char *client_id, const char *topic, const uint8_t *payload, int len,
                               int qos);
int persist_remove_offline_msg(const char *client_id, uint16_t msgid);  // 0; -1; -4
// Extends what persist_load has given of the offline messages to all of them, each cut as a load cuts it, so
// that one write ends a replay. 0; -1 bad argument; -4 not readable, the record stays as it is.
int persist_load_replay(persist_session *rec);
// `replayed` is what persist_load_replay has given of a client's offline messages, which are on their way to
// it now. Takes them out of the queue and writes it, the messages included that have come since, or that the
// load had no room for. What no load can give goes as well. Returns how many are left, for the next load;
// negative when they stay: -1 bad argument; -2 not written; -4 not readable; -5 out of memory.
int persist_finish_replay(const persist_session *replayed);
void persist_load_all_persisted_subscriptions();
int persist_retain_save();  // 0; -2 cannot create the file
int persist_retain_load();  // 0; -4 no file

// The file layer below the operations.
void persist_flush_single(const persist_session *rec, int kinds);
void persist_safe_write(const char *path, const char *text);

}  // namespace zeb

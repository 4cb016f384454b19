#include "persist/persist.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "log/agent_log.h"
#include "log/platform_memory.h"
#include "log/platform_time.h"
#include "persist/fair_mutex.h"
#include "persist/persist_client.h"
#include "persist/persist_file.h"
#include "persist/persist_internal.h"
#include "persist/persist_text.h"
#include "stats/mqtt_stats.h"

namespace zeb {

char g_persist_root_path[512] = "./mqtt_data";
std::mutex g_persist_mutex;

namespace {

// Held while files of clients are read or changed, inside g_persist_mutex where both are taken.
fair_mutex s_client_files;
// The record in which a queue is changed: 150 KiB are no matter for a stack. Guarded by s_client_files.
persist_session *s_queue = nullptr;

persist_session *queue_record(const char *client_id) {
    if (s_queue == nullptr)
        s_queue = static_cast<persist_session *>(platform_zero_alloc(sizeof(persist_session)));
    if (s_queue == nullptr)
        ZEB_LOG(AGENT_LOG_ERROR, "[persist] 内存分配失败");
    else
        persist_reset(s_queue, client_id);
    return s_queue;
}

int report_unknown(const persist_session &rec) {
    ZEB_LOG(AGENT_LOG_ERROR, "[persist] offline messages unknown, left as they are: %s", rec.client_id);
    return -4;
}

load_result load_queue(persist_session *rec) {
    const load_result result = persist_load_files(rec, queue_extent::whole);
    if (!result.queue_known) (void)report_unknown(*rec);
    return result;
}

uint16_t draw_msgid() {
    constexpr int k_highest_msgid = 65535;
    return static_cast<uint16_t>(std::rand() % k_highest_msgid + 1);
}

bool holds_msgid(const persist_session &rec, uint16_t msgid) {
    return std::any_of(rec.msgs, rec.msgs + rec.msg_count,
                       [&](const persist_msg &msg) { return msg.msgid == msgid; });
}

void fill_msg(persist_msg *msg, const char *topic, const uint8_t *payload, int len, int qos) {
    msg->qos = static_cast<uint8_t>(qos);
    msg->msgid = draw_msgid();
    text_writer(msg->topic, sizeof msg->topic).add(topic);
    msg->payload_len = static_cast<uint32_t>(std::min(len, PERSIST_MAX_PAYLOAD));
    std::memcpy(msg->payload, payload, msg->payload_len);
    msg->stored_at = platform_wall_sec();
}

void drop_oldest(persist_session *rec) {
    ZEB_LOG(AGENT_LOG_WARN, "[persist][定位] 离线消息溢出，丢弃最早一条: %s", rec->client_id);
    --rec->msg_count;
    std::memmove(&rec->msgs[0], &rec->msgs[1],
                 static_cast<std::size_t>(rec->msg_count) * sizeof(persist_msg));
}

// A load cuts the end of a long payload, and nothing else of a message that it gives.
bool is_copy(const persist_msg &stored, const persist_msg &loaded) {
    return stored.msgid == loaded.msgid && stored.qos == loaded.qos &&
           std::strcmp(stored.topic, loaded.topic) == 0 && stored.payload_len >= loaded.payload_len &&
           std::memcmp(stored.payload, loaded.payload, loaded.payload_len) == 0;
}

// Of equal messages each takes one out. Returns how many were.
int take_out(persist_session *queue, const persist_session &replayed) {
    bool used[PERSIST_MAX_MSGS] = {};
    const int count = queue->msg_count;
    const int copies = persist_msg_count(replayed);
    int kept = 0;
    for (int i = 0; i < count; ++i) {
        const persist_msg &msg = queue->msgs[i];
        int copy = 0;
        while (copy < copies && (used[copy] || !is_copy(msg, replayed.msgs[copy]))) ++copy;
        if (copy == copies) {
            if (kept != i) queue->msgs[kept] = msg;
            ++kept;
            continue;
        }
        used[copy] = true;
        if (msg.payload_len > replayed.msgs[copy].payload_len)
            ZEB_LOG(AGENT_LOG_WARN, "[persist] payload cut: client=%s, msgid=%d, %u of %u bytes",
                    queue->client_id, msg.msgid, replayed.msgs[copy].payload_len, msg.payload_len);
    }
    queue->msg_count = kept;
    return count - kept;
}

enum class audience { anybody, stored_sessions };

// False for a client that is none of the audience; every other failure has been reported.
bool add_msg(const char *client_id, const char *topic, const uint8_t *payload, int len, int qos,
             audience whom) {
    if (client_id == nullptr || *client_id == '\0' || topic == nullptr || payload == nullptr || len <= 0)
        return false;
    persist_msg msg;
    fill_msg(&msg, topic, payload, len, qos);
    const bool readable = persist_msg_reads_back(client_id, msg);
    if (!readable && whom == audience::anybody) return true;
    const std::lock_guard files(s_client_files);
    persist_session *rec = queue_record(client_id);
    if (rec == nullptr) return true;
    const load_result loaded = load_queue(rec);
    if (whom == audience::stored_sessions && !loaded.found) return false;
    if (!readable || !loaded.queue_known) return true;
    // An unseeded generator repeats itself after a restart, and one acknowledgement would serve two messages.
    while (holds_msgid(*rec, msg.msgid)) msg.msgid = draw_msgid();
    if (rec->msg_count >= PERSIST_MAX_MSGS) drop_oldest(rec);
    rec->msgs[rec->msg_count++] = msg;
    persist_flush_single(rec, PERSIST_MSGS);
    return true;
}

}  // namespace

void persist_set_root(const char *root) {
    const std::lock_guard guard(g_persist_mutex);
    const std::lock_guard files(s_client_files);
    if (root == g_persist_root_path) return;  // the writer starts by emptying it
    text_writer(g_persist_root_path, sizeof g_persist_root_path).add(root);
}

void persist_release_queue() {
    const std::lock_guard files(s_client_files);
    platform_zero_free(s_queue, sizeof(persist_session));
    s_queue = nullptr;
}

void persist_mark(persist_session *rec, int kinds) {
    if (rec == nullptr || rec->client_id[0] == '\0' || rec->clean_session != 0) return;
    const std::lock_guard files(s_client_files);
    persist_flush_single(rec, kinds);
}

int persist_load(persist_session *rec) {
    bool found = false;
    return persist_load_found(rec, &found);
}

int persist_load_found(persist_session *rec, bool *found) {
    *found = false;
    if (rec == nullptr || rec->client_id[0] == '\0') return -1;
    const std::lock_guard guard(g_persist_mutex);
    const std::lock_guard files(s_client_files);
    *found = persist_load_files(rec, queue_extent::client).found;
    return 0;
}

int persist_load_client_only(persist_session *rec) {
    if (rec == nullptr || rec->client_id[0] == '\0') return -1;
    char path[PERSIST_PATH_SIZE];
    const std::lock_guard files(s_client_files);
    if (!persist_client_path(persist_dir::subscription, persist_field(rec->client_id), path)) return -4;
    file_text file;
    file.read(path, 0);
    if (!file.opened()) return -4;
    mqtt_stats_inc_persist_read();
    rec->clean_session = 0;
    return 0;
}

int persist_remove(const char *client_id) {
    if (client_id == nullptr) return -1;
    const std::lock_guard guard(g_persist_mutex);
    const std::lock_guard files(s_client_files);
    persist_remove_files(client_id);
    return 0;
}

void persist_add_offline_msg(const char *client_id, const char *topic, const uint8_t *payload, int len,
                             int qos) {
    (void)add_msg(client_id, topic, payload, len, qos, audience::anybody);
}

bool persist_add_msg_to_stored(const char *client_id, const char *topic, const uint8_t *payload, int len,
                               int qos) {
    return add_msg(client_id, topic, payload, len, qos, audience::stored_sessions);
}

int persist_remove_offline_msg(const char *client_id, uint16_t msgid) {
    if (client_id == nullptr || msgid == 0) return -1;
    if (*client_id == '\0') return -4;  // nobody's files can be loaded
    const std::lock_guard files(s_client_files);
    persist_session *rec = queue_record(client_id);
    if (rec == nullptr || !load_queue(rec).queue_known) return -4;
    persist_msg *const end = rec->msgs + rec->msg_count;
    persist_msg *const kept =
        std::remove_if(rec->msgs, end, [&](const persist_msg &msg) { return msg.msgid == msgid; });
    rec->msg_count = static_cast<int>(kept - rec->msgs);
    persist_flush_single(rec, PERSIST_MSGS);
    return 0;
}

int persist_load_replay(persist_session *rec) {
    if (rec == nullptr || rec->client_id[0] == '\0') return -1;
    const std::lock_guard files(s_client_files);
    return persist_load_queue(rec, queue_extent::replay).queue_known ? 0 : -4;
}

int persist_finish_replay(const persist_session *replayed) {
    if (replayed == nullptr || replayed->client_id[0] == '\0') return -1;
    const std::lock_guard files(s_client_files);
    persist_session *rec = queue_record(replayed->client_id);
    if (rec == nullptr) return -5;
    const load_result now = persist_load_queue(rec, queue_extent::whole);
    if (!now.queue_known) return report_unknown(*rec);
    if (!now.found) return 0;  // the session has ended meanwhile
    if (take_out(rec, *replayed) == 0) {
        // Newer messages have pushed them out meanwhile, and a load gives others now. If it does not, what is
        // left can never be given.
        rec->msg_count = 0;
        if (!persist_load_queue(rec, queue_extent::replay).queue_known) return report_unknown(*rec);
        // One that a load gives otherwise than it stands in the file would be given again and again.
        if (rec->msg_count > 0 && take_out(rec, *replayed) == 0) return rec->msg_count;
    }
    return persist_write_files(*rec, PERSIST_MSGS) ? rec->msg_count : -2;
}

}  // namespace zeb

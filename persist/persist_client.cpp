#include "persist/persist_client.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/agent_log.h"
#include "persist/persist_file.h"
#include "persist/persist_parse.h"
#include "persist/persist_text.h"
#include "stats/mqtt_stats.h"

namespace zeb {

namespace {

constexpr std::size_t k_session_read_max = 2047;
constexpr std::size_t k_subs_read_max = 2047;
constexpr std::size_t k_msgs_read_max = 4095;
constexpr int k_write_attempts = 3;  // named in the line of a write that is not attempted at all

const char *dir_name(persist_dir dir) {
    constexpr const char *names[] = {"session", "subscription", "message"};
    return names[static_cast<int>(dir)];
}

bool fits(int len) {
    return len > 0 && static_cast<std::size_t>(len) < PERSIST_PATH_SIZE;
}

// Opened is read, for the statistics.
void read_counted(const char *path, std::size_t limit, file_text *file) {
    file->read(path, limit);
    if (file->opened()) mqtt_stats_inc_persist_read();
}

bool load_session(persist_session *rec) {
    char path[PERSIST_PATH_SIZE];
    if (!persist_client_path(persist_dir::session, persist_field(rec->client_id), path)) return false;
    file_text file;
    read_counted(path, k_session_read_max, &file);
    persist_parse_session(file.text(), rec);
    return file.opened();
}

bool load_subs(persist_session *rec) {
    char path[PERSIST_PATH_SIZE];
    if (!persist_client_path(persist_dir::subscription, persist_field(rec->client_id), path)) return false;
    file_text file;
    read_counted(path, k_subs_read_max, &file);
    if (!file.opened() || file.failed()) return file.opened();
    std::string_view text = file.text();
    rec->sub_count = 0;
    if (persist_skip_past(&text, "\"subs\":["))
        while (rec->sub_count < PERSIST_MAX_SUBS && persist_take_sub(&text, &rec->subs[rec->sub_count]))
            ++rec->sub_count;
    ZEB_LOG(AGENT_LOG_INFO, "[persist] ✅ 恢复订阅成功: %s 共 %d 条", rec->client_id, rec->sub_count);
    return true;
}

std::size_t file_limit(queue_extent extent) {
    return extent == queue_extent::client ? k_msgs_read_max : PERSIST_QUEUE_TEXT_MAX;
}

// False without the list.
bool parse_msgs(std::string_view text, queue_extent extent, persist_session *rec) {
    const std::size_t object_max =
        extent == queue_extent::whole ? PERSIST_QUEUE_TEXT_MAX : PERSIST_OBJECT_MAX;
    rec->msg_count = 0;
    if (!persist_skip_past(&text, "\"msgs\":[")) return false;
    while (rec->msg_count < PERSIST_MAX_MSGS &&
           persist_take_msg(&text, object_max, &rec->msgs[rec->msg_count]))
        ++rec->msg_count;
    return true;
}

load_result load_msgs(persist_session *rec, queue_extent extent) {
    char path[PERSIST_PATH_SIZE];
    file_text file;
    if (persist_client_path(persist_dir::message, persist_field(rec->client_id), path))
        read_counted(path, file_limit(extent), &file);
    if (!file.opened()) ZEB_LOG(AGENT_LOG_DEBUG, "[persist][定位] 无离线消息文件：%s", path);
    if (file.opened() && !file.failed() && !parse_msgs(file.text(), extent, rec))
        ZEB_LOG(AGENT_LOG_WARN, "[persist][定位] 消息格式错误：找不到 msgs 节点");
    return {file.opened(), !file.failed()};
}

bool write_file(persist_dir dir, const persist_session &rec, const char *text) {
    char path[PERSIST_PATH_SIZE];
    if (persist_client_path(dir, persist_field(rec.client_id), path)) return persist_replace_file(path, text);
    ZEB_LOG(AGENT_LOG_ERROR, "[persist] 写入临时文件失败(重试%d次): %s.tmp", k_write_attempts, path);
    return false;
}

}  // namespace

bool persist_dir_path(persist_dir dir, char (&out)[PERSIST_PATH_SIZE]) {
    return fits(snprintf(out, sizeof out, "%s/%s", g_persist_root_path, dir_name(dir)));
}

bool persist_client_path(persist_dir dir, std::string_view client_id, char (&out)[PERSIST_PATH_SIZE]) {
    const int len = snprintf(out, sizeof out, "%s/%s/%.*s.json", g_persist_root_path, dir_name(dir),
                             static_cast<int>(client_id.size()), client_id.data());
    return fits(len) && !client_id.empty() && client_id.find('/') == std::string_view::npos;
}

void persist_reset(persist_session *rec, std::string_view client_id) {
    std::memset(rec, 0, offsetof(persist_session, subs));
    rec->sub_count = 0;
    rec->msg_count = 0;
    text_writer(rec->client_id, sizeof rec->client_id).add(client_id);
}

load_result persist_load_files(persist_session *rec, queue_extent extent) {
    const bool session = load_session(rec);
    const bool subs = load_subs(rec);
    const load_result msgs = load_msgs(rec, extent);
    return {session || subs || msgs.found, msgs.queue_known};
}

load_result persist_load_queue(persist_session *rec, queue_extent extent) {
    char path[PERSIST_PATH_SIZE];
    file_text file;
    if (persist_client_path(persist_dir::message, persist_field(rec->client_id), path))
        file.read(path, file_limit(extent));
    if (file.opened() && !file.failed()) (void)parse_msgs(file.text(), extent, rec);  // none is empty
    return {file.opened(), !file.failed()};
}

void persist_remove_files(std::string_view client_id) {
    for (const persist_dir dir : PERSIST_DIRS) {
        char path[PERSIST_PATH_SIZE];
        if (persist_client_path(dir, client_id, path)) persist_remove_file(path);
    }
}

void persist_flush_single(const persist_session *rec, int kinds) {
    if (rec != nullptr) (void)persist_write_files(*rec, kinds);  // has reported its failure
}

bool persist_write_files(const persist_session &rec, int kinds) {
    if (rec.clean_session != 0) return true;
    const std::size_t base = persist_text_base(rec, kinds);
    const std::size_t size = base + PERSIST_TEXT_SPARE;
    char *buf = static_cast<char *>(std::malloc(size));
    if (buf == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[persist] 内存分配失败");
        return false;
    }
    bool written = true;
    if ((kinds & PERSIST_SESSION) != 0) {
        text_writer text(buf, size);
        persist_format_session(rec, &text);
        written = write_file(persist_dir::session, rec, buf);
    }
    // With no subscriptions the old file stays.
    if ((kinds & PERSIST_SUBS) != 0 && rec.sub_count > 0) {
        text_writer text(buf, size);
        persist_format_subs(rec, &text);
        written = write_file(persist_dir::subscription, rec, buf) && written;
    }
    if ((kinds & PERSIST_MSGS) != 0) {
        text_writer text(buf, size);
        persist_format_msgs(rec, base, &text);
        written = write_file(persist_dir::message, rec, buf) && written;
    }
    std::free(buf);
    return written;
}

}  // namespace zeb

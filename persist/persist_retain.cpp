#include <fcntl.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "log/agent_log.h"
#include "log/platform_memory.h"
#include "persist/persist.h"
#include "persist/persist_file.h"
#include "persist/persist_internal.h"
#include "persist/retain_file.h"
#include "stats/mqtt_stats.h"

namespace zeb {

namespace {

constexpr std::size_t k_table_size = RETAIN_MAX * sizeof(retain_msg);
constexpr uint32_t k_qos_max = 2;

// All below is guarded by g_persist_mutex.
retain_image s_image;
retain_msg *s_messages = nullptr;  // RETAIN_MAX: the store's copy on its way to the file or back

bool allocate_tables() {
    if (s_image.records == nullptr)
        s_image.records = static_cast<retain_msg *>(platform_zero_alloc(k_table_size));
    if (s_messages == nullptr) s_messages = static_cast<retain_msg *>(platform_zero_alloc(k_table_size));
    if (s_image.records != nullptr && s_messages != nullptr) return true;
    ZEB_LOG(AGENT_LOG_ERROR, "[persist] 内存分配失败");
    return false;
}

int open_retain_file(int flags) {
    char path[sizeof g_persist_root_path + sizeof "/retain.dat"];
    snprintf(path, sizeof path, "%s/retain.dat", g_persist_root_path);
    return persist_open(path, flags);
}

// What lies between the fields goes to the file as well, where it is zero.
void clear_padding(retain_msg *msg) {
    constexpr std::size_t behind_payload = offsetof(retain_msg, payload) + sizeof msg->payload;
    constexpr std::size_t behind_qos = offsetof(retain_msg, qos) + sizeof msg->qos;
    constexpr std::size_t behind_expiry = offsetof(retain_msg, expiry_interval) + sizeof msg->expiry_interval;
    auto *bytes = reinterpret_cast<uint8_t *>(msg);
    std::memset(bytes + behind_payload, 0, offsetof(retain_msg, payload_len) - behind_payload);
    std::memset(bytes + behind_qos, 0, offsetof(retain_msg, timestamp) - behind_qos);
    std::memset(bytes + behind_expiry, 0, sizeof *msg - behind_expiry);
}

bool is_sound(const retain_msg &msg) {
    return msg.topic[0] != '\0' && std::memchr(msg.topic, '\0', sizeof msg.topic) != nullptr &&
           msg.payload_len >= 1 && msg.payload_len <= sizeof msg.payload && msg.qos <= k_qos_max;
}

bool is_taken(const char *topic, int count) {
    for (int i = 0; i < count; ++i)
        if (std::strcmp(s_messages[i].topic, topic) == 0) return true;
    return false;
}

// Takes the records that can be messages of the store and returns their number.
int take_sound_records() {
    int count = 0;
    for (int i = 0; i < s_image.count; ++i) {
        const retain_msg &msg = s_image.records[i];
        if (is_sound(msg) && !is_taken(msg.topic, count)) std::memcpy(&s_messages[count++], &msg, sizeof msg);
    }
    if (count < s_image.count)
        ZEB_LOG(AGENT_LOG_WARN, "[persist] damaged retained records dropped: %d", s_image.count - count);
    return count;
}

void restore_store() {
    const int count = retain_store_replace(s_messages, take_sound_records());
    ZEB_LOG(AGENT_LOG_INFO, "[persist] retain loaded: %d entries", count);
}

bool save_store(const file_handle &file, int *count) {
    if (!file.valid() || !allocate_tables()) return false;
    *count = retain_store_copy(s_messages, RETAIN_MAX);
    for (int i = 0; i < *count; ++i) clear_padding(&s_messages[i]);
    return retain_file_update(file.get(), &s_image, s_messages, *count);
}

}  // namespace

int persist_retain_save() {
    const std::lock_guard guard(g_persist_mutex);
    file_handle file(open_retain_file(O_RDWR | O_CREAT));
    int count = 0;
    if (!save_store(file, &count) || !file.close()) {
        s_image.known = false;
        ZEB_LOG(AGENT_LOG_ERROR, "[persist] retain save failed");
        return -2;
    }
    mqtt_stats_inc_persist_write();
    ZEB_LOG(AGENT_LOG_DEBUG, "[persist] retain saved: %d entries", count);
    return 0;
}

int persist_retain_load() {
    const std::lock_guard guard(g_persist_mutex);
    const int writable = open_retain_file(O_RDWR);
    const file_handle file(writable >= 0 ? writable : open_retain_file(O_RDONLY));
    if (!file.valid()) {
        ZEB_LOG(AGENT_LOG_WARN, "[persist] no retain file");
        return -4;
    }
    mqtt_stats_inc_persist_read();
    if (allocate_tables() && retain_file_read(file.get(), &s_image)) restore_store();
    return 0;
}

void persist_release_retain() {
    const std::lock_guard guard(g_persist_mutex);
    platform_zero_free(s_image.records, k_table_size);
    platform_zero_free(s_messages, k_table_size);
    s_image = retain_image{};
    s_messages = nullptr;
}

}  // namespace zeb

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "log/agent_log.h"
#include "log/platform_memory.h"
#include "persist/persist.h"
#include "persist/persist_client.h"
#include "persist/persist_file.h"
#include "persist/persist_internal.h"
#include "sub/sub_mgr.h"

namespace zeb {

namespace {

constexpr mode_t k_directory_mode = 0755;
constexpr std::string_view k_suffix = ".json";
constexpr std::string_view k_temporary_suffix = ".json.tmp";

void make_directory(const char *path) {
    struct stat info;
    if (stat(path, &info) == 0) return;
    if (mkdir(path, k_directory_mode) == 0)
        ZEB_LOG(AGENT_LOG_DEBUG, "[persist] 目录创建成功: %s", path);
    else
        ZEB_LOG(AGENT_LOG_ERROR, "[persist] cannot create the directory: %s, errno=%d", path, errno);
}

void make_directories() {
    make_directory(g_persist_root_path);
    for (const persist_dir dir : PERSIST_DIRS) {
        char path[PERSIST_PATH_SIZE];
        if (!persist_dir_path(dir, path)) continue;
        make_directory(path);
        persist_finish_writes(path);
    }
}

void log_frame() {
    ZEB_LOG(AGENT_LOG_INFO, "[persist] ==============================================");
}

// The client whose file it is, empty when it is nobody's: temporary files, and names that are longer than any
// identifier that subscribes. Cut, they would subscribe for another client.
std::string_view client_of(std::string_view name) {
    if (name.size() <= k_suffix.size() || name.find(k_suffix) == std::string_view::npos) return {};
    if (name.ends_with(k_temporary_suffix)) return {};
    name.remove_suffix(k_suffix.size());
    return name.size() < sizeof mqtt_subscription::client_id ? name : std::string_view{};
}

void restore_client(persist_session *rec, std::string_view client_id) {
    persist_reset(rec, client_id);
    if (persist_load(rec) != 0) return;
    for (int i = 0; i < rec->sub_count; ++i)
        (void)sub_add(rec->client_id, rec->subs[i].topic, rec->subs[i].qos, 0);  // names what it refuses
    ZEB_LOG(AGENT_LOG_INFO, "[persist] ✅ 恢复客户端订阅: %s  订阅数=%d", rec->client_id, rec->sub_count);
}

}  // namespace

int persist_init(const char *root) {
    ZEB_LOG(AGENT_LOG_INFO, "[persist] 持久化模块初始化中...");
    if (root != nullptr && *root != '\0') persist_set_root(root);
    make_directories();
    persist_load_all_persisted_subscriptions();
    (void)persist_retain_load();  // a broker without retained messages starts as well
    ZEB_LOG(AGENT_LOG_INFO, "[persist] 持久化模块初始化完成，路径：%s", g_persist_root_path);
    return 0;
}

void persist_destroy() {
    ZEB_LOG(AGENT_LOG_INFO, "[persist] 持久化模块销毁中...");
    persist_release_queue();
    persist_release_retain();
}

void persist_stop() {
    ZEB_LOG(AGENT_LOG_INFO, "[persist] 停止刷盘线程...");
}

void persist_flush() {
    ZEB_LOG(AGENT_LOG_DEBUG, "[persist] 执行强制刷盘(无操作，已同步写入)");
}

void persist_clean_expire() {
    ZEB_LOG(AGENT_LOG_DEBUG, "[persist] 清理过期会话（未启用）");
}

void persist_load_all_persisted_subscriptions() {
    log_frame();
    ZEB_LOG(AGENT_LOG_INFO, "[persist] 🔥 BROKER 启动 - 自动加载所有持久化订阅");
    log_frame();
    char path[PERSIST_PATH_SIZE];
    DIR *dir = persist_dir_path(persist_dir::subscription, path) ? opendir(path) : nullptr;
    if (dir == nullptr) {
        ZEB_LOG(AGENT_LOG_WARN, "[persist] 订阅目录不存在");
        return;
    }
    auto *rec = static_cast<persist_session *>(platform_zero_alloc(sizeof(persist_session)));
    if (rec == nullptr) ZEB_LOG(AGENT_LOG_ERROR, "[persist] 内存分配失败");
    while (const dirent *entry = rec != nullptr ? readdir(dir) : nullptr) {
        const std::string_view client_id = client_of(entry->d_name);
        if (!client_id.empty()) restore_client(rec, client_id);
    }
    platform_zero_free(rec, sizeof(persist_session));
    (void)closedir(dir);
    log_frame();
    ZEB_LOG(AGENT_LOG_INFO, "[persist] ✅ 所有持久化订阅加载完成");
    log_frame();
}

}  // namespace zeb

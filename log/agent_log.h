#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

// The one logger of the process: one configuration, one file, one guard. Any thread may log, and none waits
// for another: a call that finds the guard set loses its line. Standard output therefore sees nearly every
// line, the file only those during which another thread's call released the guard. Errors are not reported to
// the caller: a file that cannot be opened or positioned is dropped until the next agent_log_init. Nothing
// here allocates per line, and errno is kept. agent_log_init, agent_log_deinit and agent_log_clear_flash may
// run while other threads log.

namespace zeb {

enum : uint32_t {
    AGENT_LOG_DEBUG = 0,
    AGENT_LOG_INFO = 1,
    AGENT_LOG_WARN = 2,
    AGENT_LOG_ERROR = 3,
    AGENT_LOG_FATAL = 4
};

enum : uint32_t { AGENT_LOG_OUT_STDOUT = 1, AGENT_LOG_OUT_FILE = 2 };

struct agent_log_config {
    uint32_t level;          // relaxed (atomic_ref)
    uint32_t output;         // AGENT_LOG_OUT_* bits; relaxed (atomic_ref)
    uint32_t max_file_size;  // 0 in the caller's record: 1048576
    uint16_t max_entries;    // outside 1..1024 in the caller's record: 256
    const char *file_path;   // null or empty: "zeb_flash.txt"
};

extern const char *const g_log_level_str[5];  // "DEBUG" .. "FATAL"; 5 and above print "UNKNOWN"
extern agent_log_config g_log_config;         // initially {0, 1, 1048576, 256, "zeb_flash.txt"}
extern std::atomic<int> g_log_in_use;         // the guard, 0 = free; relaxed
extern char g_log_file_path[512];             // copy of the path in force; g_log_config.file_path points here
extern FILE *g_log_file;                      // null when closed

// Opens the log, closing the file of an earlier call. A null cfg keeps the configuration and only frees the
// guard. A file that cannot be opened takes AGENT_LOG_OUT_FILE out of the output. The texts of cfg are
// copied.
void agent_log_init(const agent_log_config *cfg);
// Closes the file and leaves the guard set: every later line is dropped, up to the next agent_log_init.
void agent_log_deinit();
// Writes "[time stamp] [level] message"; a message keeps at most 1022 characters, and in the file a line as a
// whole 1022 and its line feed. Prefer ZEB_LOG, which evaluates nothing below the level.
[[gnu::format(printf, 2, 3)]] void agent_log(uint32_t level, const char *fmt, ...);
// At INFO, at most 255 characters.
[[gnu::format(printf, 1, 2)]] void agent_log_printf(const char *fmt, ...);
// At DEBUG: the title unless it is null, then lines of up to 16 bytes, "00 01 02 ". Nothing without bytes.
void agent_log_hexdump(const char *title, const uint8_t *data, uint16_t len);
void agent_log_set_level(uint32_t level);         // 5 and above: ignored
uint32_t agent_log_get_count();                   // 0: no entries are kept
const void *agent_log_get_entry(uint32_t index);  // null
// Empties the file, opening it in any case; returns at once when the guard is set.
void agent_log_clear_flash();

// One relaxed load: what a line below the level costs when it is written with ZEB_LOG.
inline bool agent_log_enabled(uint32_t level) {
    return level >= std::atomic_ref<uint32_t>(g_log_config.level).load(std::memory_order_relaxed);
}

}  // namespace zeb

// Log a line without evaluating its arguments when the level is switched off.
#define ZEB_LOG(level, ...)                                                        \
    do {                                                                           \
        if (::zeb::agent_log_enabled(level)) ::zeb::agent_log(level, __VA_ARGS__); \
    } while (0)

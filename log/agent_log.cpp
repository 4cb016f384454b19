#include "log/agent_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "log/platform_time.h"

namespace zeb {

const char *const g_log_level_str[5] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
char g_log_file_path[512] = "zeb_flash.txt";
agent_log_config g_log_config = {AGENT_LOG_DEBUG, AGENT_LOG_OUT_STDOUT, 0x100000, 256, g_log_file_path};
std::atomic<int> g_log_in_use{0};
FILE *g_log_file = nullptr;

namespace {

constexpr char k_default_path[] = "zeb_flash.txt";
constexpr uint32_t k_default_file_bytes = 0x100000;
constexpr uint16_t k_default_entries = 256;
constexpr uint16_t k_max_entries = 1024;
constexpr uint32_t k_level_count = 5;
constexpr size_t k_line_bytes = 1024;        // a formatted message, and a whole line of the file
constexpr size_t k_format_bound = 1023;      // keeps 1022 characters of a message
constexpr size_t k_file_line_max = 1022;     // prefix and message together, in the file
constexpr size_t k_printf_bytes = 256;       // agent_log_printf keeps 255 characters
constexpr uint32_t k_stamp_bytes = 64;       // a time stamp and its terminator
constexpr size_t k_prefix_bytes = 96;        // "[stamp] [level] "
constexpr size_t k_stream_bytes = 4096;      // the file's buffer, flushed after every line
constexpr size_t k_hex_bytes_per_line = 16;  // three characters each

// Claims the stream, its path and its size limit. A line only ever tries it, so that no caller waits for
// another one's disk; init, deinit and clear_flash wait.
std::mutex g_stream_lock;

// Number of the log's life: odd from a deinit to the next init. A call that was under way when deinit ran
// must not release the guard behind it, or the log would speak again; so releasing and shutting exclude each
// other.
std::mutex g_life_lock;  // held for a few instructions, with no other lock
std::atomic<uint32_t> g_life{0};

std::atomic_ref<uint32_t> config_output() {
    return std::atomic_ref<uint32_t>(g_log_config.output);
}

bool output_has(uint32_t bit) {
    return (config_output().load(std::memory_order_relaxed) & bit) != 0;
}

bool guard_is_set() {
    return g_log_in_use.load(std::memory_order_relaxed) != 0;
}

// Kept: tested and set in two steps, so that two callers may both pass; they only share standard output,
// which locks itself, while the file asks for g_stream_lock.
bool take_guard() {
    if (guard_is_set()) return false;
    g_log_in_use.store(1, std::memory_order_relaxed);
    return true;
}

uint32_t current_life() {
    return g_life.load(std::memory_order_acquire);  // read before the guard is tested
}

// Whether deinit ran since `life` was read, with no init after it.
bool shut_since(uint32_t life) {
    const uint32_t now = current_life();
    return now % 2 != 0 && now != life;
}

void release_guard(uint32_t life) {
    const std::lock_guard<std::mutex> lock(g_life_lock);
    if (!shut_since(life)) g_log_in_use.store(0, std::memory_order_relaxed);
}

void shut_guard() {
    const std::lock_guard<std::mutex> lock(g_life_lock);
    g_log_in_use.store(1, std::memory_order_relaxed);
    g_life.store((g_life.load(std::memory_order_relaxed) + 1) | 1u, std::memory_order_release);
}

void open_guard() {
    const std::lock_guard<std::mutex> lock(g_life_lock);
    const uint32_t life = g_life.load(std::memory_order_relaxed);
    g_log_in_use.store(0, std::memory_order_relaxed);
    g_life.store(life + life % 2, std::memory_order_release);
}

const char *level_name(uint32_t level) {
    return level < k_level_count ? g_log_level_str[level] : "UNKNOWN";
}

// The functions from here to write_to_file run with g_stream_lock held.

void close_stream() {
    if (g_log_file == nullptr) return;
    (void)fclose(g_log_file);  // a full disk has no better place to be reported than this log
    g_log_file = nullptr;
}

bool open_stream(const char *mode) {
    g_log_file = fopen(g_log_file_path, mode);
    if (g_log_file == nullptr) return false;
    (void)setvbuf(g_log_file, nullptr, _IOFBF, k_stream_bytes);  // without it stdio buffers just as well
    return true;
}

// The caller may hand our own buffer back: agent_log_init(&g_log_config).
void set_path(const char *path) {
    if (path == nullptr || path[0] == '\0') path = k_default_path;
    const size_t len = strnlen(path, sizeof g_log_file_path - 1);
    memmove(g_log_file_path, path, len);
    g_log_file_path[len] = '\0';
    g_log_config.file_path = g_log_file_path;
}

// Stands at the end of a file with room for a line, or returns false with no file open.
bool seek_to_room() {
    const long end = fseek(g_log_file, 0, SEEK_END) == 0 ? ftell(g_log_file) : -1;
    if (end < 0) {
        close_stream();
        return false;
    }
    if (static_cast<unsigned long>(end) < g_log_config.max_file_size) return true;
    close_stream();
    return open_stream("we");
}

void write_to_file(const char *prefix, const char *message) {
    const std::unique_lock<std::mutex> claim(g_stream_lock, std::try_to_lock);
    if (!claim.owns_lock() || g_log_file == nullptr || !take_guard()) return;
    if (!seek_to_room()) return;
    char line[k_line_bytes];
    const int room = static_cast<int>(k_file_line_max - strlen(prefix));
    snprintf(line, sizeof line, "%s%.*s\n", prefix, room, message);
    (void)fputs(line, g_log_file);  // a full disk costs this line; a later one may find room
    (void)fflush(g_log_file);
}

void make_prefix(uint32_t level, char (&prefix)[k_prefix_bytes]) {
    char stamp[k_stamp_bytes];
    platform_get_localtime_str(stamp, sizeof stamp);
    snprintf(prefix, sizeof prefix, "[%s] [%s] ", stamp, level_name(level));
}

// One call hands over the whole line, so that the lines of two threads never mix; the flush is for readers
// behind a pipe.
void write_to_stdout(const char *prefix, const char *message) {
    char line[k_prefix_bytes + k_line_bytes];
    const int len = snprintf(line, sizeof line, "%s%s\n", prefix, message);
    (void)fwrite(line, 1, static_cast<size_t>(len), stdout);  // nobody is left to tell
    (void)fflush(stdout);
}

// Both outputs of one line, under the guard that the caller has taken.
void emit(uint32_t level, const char *message) {
    char prefix[k_prefix_bytes] = "";
    if (output_has(AGENT_LOG_OUT_STDOUT)) {
        make_prefix(level, prefix);
        write_to_stdout(prefix, message);
    }
    // Kept: this call has set the guard itself, so the file gets the line only when another thread's call has
    // released the guard meanwhile.
    if (!output_has(AGENT_LOG_OUT_FILE) || guard_is_set()) return;
    if (prefix[0] == '\0') make_prefix(level, prefix);
    write_to_file(prefix, message);
}

}  // namespace

void agent_log_init(const agent_log_config *cfg) {
    open_guard();
    if (cfg == nullptr) return;
    const std::lock_guard<std::mutex> lock(g_stream_lock);
    close_stream();
    const bool entries_fit = cfg->max_entries >= 1 && cfg->max_entries <= k_max_entries;
    g_log_config.max_entries = entries_fit ? cfg->max_entries : k_default_entries;
    g_log_config.max_file_size = cfg->max_file_size != 0 ? cfg->max_file_size : k_default_file_bytes;
    set_path(cfg->file_path);
    uint32_t output = cfg->output;
    if ((output & AGENT_LOG_OUT_FILE) != 0 && !open_stream("ae")) output &= ~AGENT_LOG_OUT_FILE;
    std::atomic_ref<uint32_t>(g_log_config.level).store(cfg->level, std::memory_order_relaxed);
    config_output().store(output, std::memory_order_relaxed);
}

void agent_log_deinit() {
    shut_guard();
    const std::lock_guard<std::mutex> lock(g_stream_lock);
    close_stream();
}

void agent_log(uint32_t level, const char *fmt, ...) {
    if (!agent_log_enabled(level) || fmt == nullptr) return;
    const uint32_t life = current_life();
    if (!take_guard()) return;
    const int callers_errno = errno;
    char message[k_line_bytes];
    va_list args;
    va_start(args, fmt);
    if (vsnprintf(message, k_format_bound, fmt, args) < 0) message[0] = '\0';
    va_end(args);
    emit(level, message);
    release_guard(life);
    errno = callers_errno;
}

void agent_log_printf(const char *fmt, ...) {
    if (fmt == nullptr || !agent_log_enabled(AGENT_LOG_INFO)) return;
    char text[k_printf_bytes];
    va_list args;
    va_start(args, fmt);
    if (vsnprintf(text, sizeof text, fmt, args) < 0) text[0] = '\0';
    va_end(args);
    agent_log(AGENT_LOG_INFO, "%s", text);
}

void agent_log_hexdump(const char *title, const uint8_t *data, uint16_t len) {
    static constexpr char k_digits[] = "0123456789ABCDEF";
    if (data == nullptr || len == 0 || !agent_log_enabled(AGENT_LOG_DEBUG)) return;
    if (title != nullptr) agent_log(AGENT_LOG_DEBUG, "%s", title);
    char line[k_hex_bytes_per_line * 3 + 1];
    for (size_t i = 0; i < len; ++i) {
        char *group = line + i % k_hex_bytes_per_line * 3;
        group[0] = k_digits[data[i] >> 4];
        group[1] = k_digits[data[i] & 0x0F];
        group[2] = ' ';
        group[3] = '\0';
        if (i % k_hex_bytes_per_line == k_hex_bytes_per_line - 1 || i + 1 == len)
            agent_log(AGENT_LOG_DEBUG, "%s", line);
    }
}

void agent_log_set_level(uint32_t level) {
    if (level >= k_level_count) return;
    std::atomic_ref<uint32_t>(g_log_config.level).store(level, std::memory_order_relaxed);
}

uint32_t agent_log_get_count() {
    return 0;  // no entries are kept
}

const void *agent_log_get_entry(uint32_t) {
    return nullptr;
}

void agent_log_clear_flash() {
    const uint32_t life = current_life();
    if (!take_guard()) return;
    {
        const std::lock_guard<std::mutex> lock(g_stream_lock);
        close_stream();
        if (!shut_since(life)) (void)open_stream("we");  // on failure there is no file until the next init
    }
    release_guard(life);
}

}  // namespace zeb

#pragma once

#include <gtest/gtest.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "log/agent_log.h"
#include "log/platform_time.h"

namespace zeb_test {

// The time stamp of every line below: a fixed instant in UTC.
inline constexpr uint64_t k_stamp_ms = 1704164645678;
inline constexpr char k_stamp[] = "2024-01-02 03:04:05.678";

inline void use_time_zone(const char *tz) {
    setenv("TZ", tz, 1);
    tzset();
}

// Whether the file named exists, and its content.
inline bool file_exists(const char *path) {
    FILE *file = fopen(path, "r");
    if (file == nullptr) return false;
    fclose(file);
    return true;
}

inline std::string file_text(const char *path) {
    std::string text;
    FILE *file = fopen(path, "r");
    if (file == nullptr) return text;
    for (int c = fgetc(file); c != EOF; c = fgetc(file)) text.push_back(static_cast<char>(c));
    fclose(file);
    return text;
}

// Stops the clock at k_stamp_ms. With release_guard set, taking a time stamp clears the log's guard, as
// another thread's call would when it ends at that moment: the way for a single thread to reach the file.
class log_fixture : public testing::Test {
  protected:
    log_fixture() {
        use_time_zone("UTC0");
        release_guard = false;
        on_stamp = nullptr;
        zeb::platform_set_clock(&k_clock);
        init(zeb::AGENT_LOG_DEBUG, zeb::AGENT_LOG_OUT_STDOUT);
    }
    ~log_fixture() override {
        init(zeb::AGENT_LOG_DEBUG, zeb::AGENT_LOG_OUT_STDOUT);
        zeb::platform_set_clock(nullptr);
    }

    static void init(uint32_t level, uint32_t output, const char *path = nullptr,
                     uint32_t max_file_size = 0) {
        const zeb::agent_log_config config{level, output, max_file_size, 0, path};
        zeb::agent_log_init(&config);
    }

    // What `action` writes to standard output.
    template <class callable>
    static std::string printed(callable action) {
        testing::internal::CaptureStdout();
        action();
        return testing::internal::GetCapturedStdout();
    }

    // Logs to the file although no other thread is there; returns what went to standard output.
    template <class callable>
    static std::string with_guard_released(callable action) {
        release_guard = true;
        std::string text = printed(action);
        release_guard = false;
        return text;
    }

    static inline bool release_guard = false;
    static inline void (*on_stamp)() = nullptr;

  private:
    static uint64_t stamp_ms() {
        if (release_guard) zeb::g_log_in_use.store(0, std::memory_order_relaxed);
        if (on_stamp != nullptr) on_stamp();
        return k_stamp_ms;
    }
    static constexpr zeb::platform_clock k_clock{nullptr, stamp_ms, nullptr};
};

inline std::string line(const char *level, const std::string &message) {
    return "[" + std::string(k_stamp) + "] [" + level + "] " + message + "\n";
}

}  // namespace zeb_test

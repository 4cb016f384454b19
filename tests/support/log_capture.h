#pragma once

#include <gtest/gtest.h>

#include <string>

#include "log/agent_log.h"

namespace zeb_test {

// Collects what the log writes to standard output while it lives, at the given level and above.
class log_capture {
  public:
    explicit log_capture(uint32_t level = zeb::AGENT_LOG_DEBUG) : previous_(zeb::g_log_config.level) {
        const zeb::agent_log_config config{level, zeb::AGENT_LOG_OUT_STDOUT, 0, 0, nullptr};
        zeb::agent_log_init(&config);
        testing::internal::CaptureStdout();
    }
    ~log_capture() {
        if (capturing_) (void)testing::internal::GetCapturedStdout();
        zeb::agent_log_set_level(previous_);
    }
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    // Ends the capture and returns all lines, time stamps included.
    const std::string &text() {
        if (capturing_) {
            text_ = testing::internal::GetCapturedStdout();
            capturing_ = false;
        }
        return text_;
    }
    // Whether a line "[<level>] <message>" was written, the message compared whole.
    bool has(const char *level, const std::string &message) {
        return text().find("] [" + std::string(level) + "] " + message + "\n") != std::string::npos;
    }

  private:
    uint32_t previous_;
    bool capturing_ = true;
    std::string text_;
};

}  // namespace zeb_test

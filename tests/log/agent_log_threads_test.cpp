#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log/agent_log.h"
#include "log/platform_time.h"

namespace {

using namespace zeb;

constexpr int k_writers = 8;
constexpr char k_file[] = "threads.txt";
constexpr char k_stdout[] = "stdout.txt";
constexpr uint32_t k_both = AGENT_LOG_OUT_STDOUT | AGENT_LOG_OUT_FILE;
constexpr uint64_t k_deadline_ms = 20000;

// Sends standard output into k_stdout while it lives.
class redirected_stdout {
  public:
    redirected_stdout() {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int target = open(k_stdout, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
        dup2(target, STDOUT_FILENO);
        close(target);
    }
    ~redirected_stdout() {
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    redirected_stdout(const redirected_stdout &) = delete;
    redirected_stdout &operator=(const redirected_stdout &) = delete;

  private:
    int saved_ = -1;
};

// With it every call that takes a time stamp also clears the guard, so that calls overlap and reach the file.
class overlapping_calls {
  public:
    overlapping_calls() { platform_set_clock(&k_clock); }
    ~overlapping_calls() { platform_set_clock(nullptr); }
    overlapping_calls(const overlapping_calls &) = delete;
    overlapping_calls &operator=(const overlapping_calls &) = delete;

  private:
    static uint64_t stamp_ms() {
        g_log_in_use.store(0, std::memory_order_relaxed);
        return 1700000000000;
    }
    static constexpr platform_clock k_clock{nullptr, stamp_ms, nullptr};
};

// A message whose length and letters follow from the two numbers at its start.
std::string message(int thread, int count) {
    return "thread=" + std::to_string(thread) + " count=" + std::to_string(count) + " " +
           std::string(static_cast<size_t>(count % 200), static_cast<char>('a' + thread));
}

class writers {
  public:
    writers() {
        for (int t = 0; t < k_writers; ++t)
            threads_[static_cast<size_t>(t)] = std::thread([this, t] { run(t); });
    }
    ~writers() {
        stop_.store(true);
        for (std::thread &thread : threads_) thread.join();
    }
    writers(const writers &) = delete;
    writers &operator=(const writers &) = delete;

    // Waits until each thread has begun and ended `calls` more calls.
    bool await_calls_of_each(uint64_t calls) const {
        const uint64_t deadline_ms = platform_mono_ms() + k_deadline_ms;
        std::array<uint64_t, k_writers> from{};
        for (size_t t = 0; t < k_writers; ++t) from[t] = ended_[t].load();
        for (size_t t = 0; t < k_writers; ++t) {
            while (ended_[t].load() < from[t] + calls + 1) {  // the first may have begun before
                if (platform_mono_ms() > deadline_ms) return false;
                platform_sleep_us(100);
            }
        }
        return true;
    }

  private:
    void run(int t) {
        const uint8_t bytes[20] = {};
        for (int n = 0; !stop_.load(std::memory_order_relaxed); ++n) {
            agent_log(AGENT_LOG_WARN, "%s", message(t, n).c_str());
            agent_log_hexdump("below the level", bytes, sizeof bytes);
            ended_[static_cast<size_t>(t)].fetch_add(1);
        }
    }

    std::atomic<bool> stop_{false};
    std::array<std::atomic<uint64_t>, k_writers> ended_{};
    std::array<std::thread, k_writers> threads_;
};

// The messages of a file, every line of which must be whole.
std::vector<std::string> whole_messages(const char *path) {
    constexpr char k_tag[] = "] [WARN] ";
    constexpr size_t k_tag_at = 24;
    std::vector<std::string> messages;
    FILE *file = fopen(path, "r");
    if (file == nullptr) return messages;
    char line[2048];
    while (fgets(line, sizeof line, file) != nullptr) {
        const std::string text(line);
        int thread = -1;
        int count = -1;
        const bool tagged = text.find(k_tag) == k_tag_at && text.back() == '\n';
        const std::string body = tagged ? text.substr(k_tag_at + 9, text.size() - k_tag_at - 10) : "";
        if (sscanf(body.c_str(), "thread=%d count=%d ", &thread, &count) != 2 ||
            body != message(thread, count))
            ADD_FAILURE() << "torn line: " << text;
        messages.push_back(body);
    }
    fclose(file);
    return messages;
}

off_t size_of(const char *path) {
    struct stat info {};
    return stat(path, &info) == 0 ? info.st_size : -1;
}

void start_log(uint32_t output, uint32_t max_file_size) {
    const agent_log_config config{AGENT_LOG_WARN, output, max_file_size, 0, k_file};
    agent_log_init(&config);
}

TEST(agent_log_threads, lines_of_eight_threads_never_mix_and_none_comes_twice) {
    unlink(k_file);
    start_log(k_both, 0);
    {
        const overlapping_calls overlapping;
        const redirected_stdout redirected;
        const writers running;
        EXPECT_TRUE(running.await_calls_of_each(200));
        const uint64_t deadline_ms = platform_mono_ms() + k_deadline_ms;
        while (size_of(k_file) == 0 && platform_mono_ms() < deadline_ms) platform_sleep_us(1000);
    }
    agent_log_deinit();
    for (const char *path : {k_stdout, k_file}) {
        const std::vector<std::string> messages = whole_messages(path);
        EXPECT_GT(messages.size(), 0u) << path;
        EXPECT_EQ(std::set<std::string>(messages.begin(), messages.end()).size(), messages.size()) << path;
    }
}

TEST(agent_log_threads, the_log_is_started_cleared_and_stopped_while_eight_threads_write) {
    constexpr uint32_t k_max_file_size = 4096;
    constexpr int k_cycles = 150;
    constexpr uint64_t k_longest_ms = 1500;
    unlink(k_file);
    {
        const overlapping_calls overlapping;
        const redirected_stdout redirected;
        const writers running;
        const uint64_t until_ms = platform_mono_ms() + k_longest_ms;
        for (int i = 0; i < k_cycles && platform_mono_ms() < until_ms; ++i) {
            start_log(i % 4 == 3 ? AGENT_LOG_OUT_STDOUT : k_both, k_max_file_size);
            agent_log_set_level(i % 2 == 0 ? AGENT_LOG_WARN : AGENT_LOG_ERROR);
            platform_sleep_us(500);
            agent_log_set_level(AGENT_LOG_WARN);
            agent_log_clear_flash();
            platform_sleep_us(500);
            if (i % 3 != 0) agent_log_deinit();
        }
    }
    agent_log_deinit();
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(g_log_in_use.load(), 1);
    (void)whole_messages(k_stdout);
    (void)whole_messages(k_file);
    EXPECT_LT(size_of(k_file), static_cast<off_t>(k_max_file_size) + 1024);
}

TEST(agent_log_threads, after_deinit_eight_threads_stay_silent) {
    constexpr int k_rounds = 10;
    const redirected_stdout redirected;
    const writers running;
    for (int i = 0; i < k_rounds; ++i) {
        start_log(AGENT_LOG_OUT_STDOUT, 0);
        ASSERT_TRUE(running.await_calls_of_each(5));
        agent_log_deinit();
        ASSERT_TRUE(running.await_calls_of_each(1));  // calls that were under way end
        const off_t size = size_of(k_stdout);
        ASSERT_TRUE(running.await_calls_of_each(100));
        EXPECT_EQ(size_of(k_stdout), size);
        EXPECT_EQ(g_log_in_use.load(), 1);
    }
    EXPECT_GT(size_of(k_stdout), 0);
}

}  // namespace

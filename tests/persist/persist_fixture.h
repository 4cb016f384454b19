#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <string>

#include "persist/persist.h"
#include "stats/mqtt_stats.h"
#include "sub/retain_store.h"
#include "sub/sub_mgr.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"

namespace zeb_test {

namespace fs = std::filesystem;

inline void put_file(const fs::path &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string file_content(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Every file, directory and link under a directory, with what is in it.
inline std::map<std::string, std::string> tree(const fs::path &root) {
    std::map<std::string, std::string> out;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
        std::string &content = out[entry.path().string()];
        if (entry.is_symlink())
            content = "link to " + fs::read_symlink(entry.path()).string();
        else
            content = entry.is_directory() ? "directory" : "file " + file_content(entry.path());
    }
    return out;
}

using record_ptr = std::unique_ptr<zeb::persist_session>;

inline record_ptr new_record(const std::string &client_id) {
    auto rec = std::make_unique<zeb::persist_session>();
    snprintf(rec->client_id, sizeof rec->client_id, "%s", client_id.c_str());
    return rec;
}

inline void push_sub(zeb::persist_session *rec, const std::string &topic, uint8_t qos) {
    zeb::persist_sub &sub = rec->subs[rec->sub_count++];
    snprintf(sub.topic, sizeof sub.topic, "%s", topic.c_str());
    sub.qos = qos;
}

inline void push_msg(zeb::persist_session *rec, uint16_t msgid, const std::string &topic,
                     const std::string &payload, uint8_t qos) {
    zeb::persist_msg &msg = rec->msgs[rec->msg_count++];
    msg.msgid = msgid;
    msg.qos = qos;
    snprintf(msg.topic, sizeof msg.topic, "%s", topic.c_str());
    msg.payload_len = static_cast<uint32_t>(payload.size());
    payload.copy(reinterpret_cast<char *>(msg.payload), sizeof msg.payload);
}

inline record_ptr loaded(const std::string &client_id) {
    record_ptr rec = new_record(client_id);
    EXPECT_EQ(zeb::persist_load(rec.get()), 0);
    return rec;
}

inline std::string payload_of(const zeb::persist_msg &msg) {
    return {reinterpret_cast<const char *>(msg.payload), msg.payload_len};
}

inline void add_offline(const std::string &client_id, const std::string &topic, const std::string &payload,
                        int qos = 1) {
    zeb::persist_add_offline_msg(client_id.c_str(), topic.c_str(),
                                 reinterpret_cast<const uint8_t *>(payload.data()),
                                 static_cast<int>(payload.size()), qos);
}

inline int retain(const std::string &topic, const std::string &payload, uint32_t qos = 1) {
    return zeb::retain_msg_set(topic.c_str(), reinterpret_cast<const uint8_t *>(payload.data()),
                               static_cast<uint32_t>(payload.size()), qos);
}

// Topic -> payload of the store.
inline std::map<std::string, std::string> retained() {
    std::map<std::string, std::string> out;
    const auto all = std::make_unique<zeb::retain_msg[]>(zeb::RETAIN_MAX);
    const int count = zeb::retain_store_copy(all.get(), zeb::RETAIN_MAX);
    for (int i = 0; i < count; ++i)
        out[all[i].topic] = {reinterpret_cast<const char *>(all[i].payload), all[i].payload_len};
    return out;
}

// Runs the test's body in a process of its own, which may give up its rights, its mounts or its life. Returns
// its exit code; 0 stands for no failure.
template <typename body>
int in_child(body run) {
    std::cout.flush();
    const pid_t pid = fork();
    if (pid == 0) {
        run();
        std::cout.flush();
        (void)std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status)) << "status " << status;
    return WEXITSTATUS(status);
}

// A data directory of its own with the three directories in it, empty tables, and time that stands still.
class persist_fixture : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "persist.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        outer_ = fs::absolute(name);
        root_ = outer_ / "data";
        zeb::mqtt_stats_init();
        ASSERT_EQ(zeb::sub_init(), 0);
        for (const char *dir : {"session", "subscription", "message"}) fs::create_directories(root_ / dir);
        snprintf(zeb::g_persist_root_path, sizeof zeb::g_persist_root_path, "%s", root_.c_str());
    }
    void TearDown() override {
        zeb::persist_destroy();
        zeb::sub_deinit();
        std::error_code ignored;
        fs::remove_all(outer_, ignored);
        if (HasFailure()) std::cerr << log_.text();  // the capture holds what the checks had to say as well
    }

    // As a stop and a start of the broker.
    void restart() const {
        zeb::persist_destroy();
        zeb::sub_deinit();
        ASSERT_EQ(zeb::sub_init(), 0);
        ASSERT_EQ(zeb::persist_init(root_.c_str()), 0);
    }

    fs::path session_file(const std::string &id) const { return root_ / "session" / (id + ".json"); }
    fs::path subs_file(const std::string &id) const { return root_ / "subscription" / (id + ".json"); }
    fs::path msgs_file(const std::string &id) const { return root_ / "message" / (id + ".json"); }
    fs::path retain_file() const { return root_ / "retain.dat"; }

    static uint64_t writes() { return zeb::g_mqtt_stats.persist_write.load(); }
    static uint64_t reads() { return zeb::g_mqtt_stats.persist_read.load(); }

    fs::path outer_;
    fs::path root_;
    fake_clock clock_;
    log_capture log_;
};

}  // namespace zeb_test

#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "client/client_mgr.h"
#include "sdk/zeb_sdk_mqtt_broker.h"
#include "stats/mqtt_stats.h"
#include "tests/client/mqtt_peer.h"
#include "tests/client/stepped_clock.h"
#include "tests/support/log_capture.h"

namespace zeb_test {

// An instance that is initialised and, once start was called, running; silent unless a test listens.
class broker {
  public:
    broker() : b_(zeb_sdk_mqtt_broker_create()) {
        EXPECT_EQ(zeb_sdk_mqtt_broker_init(b_), 0);
        zeb_sdk_mqtt_broker_set_log_level(b_, zeb::AGENT_LOG_FATAL);
    }
    explicit broker(int max_clients) : broker() { EXPECT_EQ(start(max_clients), 0); }
    ~broker() {
        if (b_ == nullptr) return;
        EXPECT_EQ(zeb_sdk_mqtt_broker_stop(b_), 0);
        zeb_sdk_mqtt_broker_deinit(b_);
        zeb_sdk_mqtt_broker_destroy(b_);
    }
    broker(const broker &) = delete;
    broker &operator=(const broker &) = delete;

    int start(int max_clients = 200, int port = 1883) {
        return zeb_sdk_mqtt_broker_start(b_, port, max_clients);
    }
    mqtt_broker_instance *get() const { return b_; }
    int online() const { return zeb_sdk_mqtt_broker_get_online_count(b_); }
    std::string ids() const {
        char buf[4096];
        EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_id_list(b_, buf, sizeof buf), 0);
        return buf;
    }

  private:
    mqtt_broker_instance *b_;
};

// What the callbacks were told, and what they answer. The public interface hands no argument of the
// application's to a callback, hence one per process.
class callbacks {
  public:
    struct event {
        uint32_t kind;
        std::string json;
    };
    using event_hook = std::function<void(mqtt_broker_instance *, const event &)>;

    static callbacks &get() {
        static callbacks instance;
        return instance;
    }
    void reset() {
        const std::lock_guard lock(lock_);
        events_.clear();
        hook_ = nullptr;
    }
    void set_hook(event_hook hook) {
        const std::lock_guard lock(lock_);
        hook_ = std::move(hook);
    }
    std::vector<std::string> events(uint32_t kind) {
        const std::lock_guard lock(lock_);
        std::vector<std::string> out;
        for (const event &e : events_)
            if (e.kind == kind) out.push_back(e.json);
        return out;
    }
    static int on_event(mqtt_broker_instance *b, uint32_t kind, const char *json) {
        callbacks &self = get();
        const event e{kind, json};
        event_hook hook;
        {
            const std::lock_guard lock(self.lock_);
            self.events_.push_back(e);
            hook = self.hook_;
        }
        if (hook) hook(b, e);
        return 0;
    }

  private:
    std::mutex lock_;
    std::vector<event> events_;
    event_hook hook_;
};

}  // namespace zeb_test

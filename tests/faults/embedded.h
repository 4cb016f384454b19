#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "log/agent_log.h"
#include "sdk/zeb_sdk_mqtt_broker.h"

namespace zeb_test {

// A broker in `directory`, by the public interface alone. What fails is told by the result of open.
class embedded {
  public:
    embedded() = default;
    ~embedded() { close(); }
    embedded(const embedded &) = delete;
    embedded &operator=(const embedded &) = delete;

    struct options {
        int connect_timeout_s = 0;
        int max_clients = 100;
        bool low_latency = false;
    };

    int open(const char *directory) { return open(directory, {}); }
    int open(const char *directory, const options &wanted) {
        b_ = zeb_sdk_mqtt_broker_create();
        if (b_ == nullptr) return MQTT_BROKER_ERR_RESOURCE;
        snprintf(b_->data_dir, sizeof b_->data_dir, "%s", directory);
        const int result = zeb_sdk_mqtt_broker_init(b_);
        if (result != 0) return result;
        zeb_sdk_mqtt_broker_set_log_level(b_, zeb::AGENT_LOG_FATAL);
        const mqtt_broker_option timeout = MQTT_BROKER_OPTION_CONNECT_TIMEOUT;
        EXPECT_EQ(zeb_sdk_mqtt_broker_set_option(b_, timeout, wanted.connect_timeout_s), 0);
        const mqtt_broker_option latency = MQTT_BROKER_OPTION_LOW_LATENCY;
        EXPECT_EQ(zeb_sdk_mqtt_broker_set_option(b_, latency, wanted.low_latency ? 1 : 0), 0);
        return zeb_sdk_mqtt_broker_start(b_, 1883, wanted.max_clients);
    }
    void close() {
        if (b_ == nullptr) return;
        EXPECT_EQ(zeb_sdk_mqtt_broker_stop(b_), 0);
        zeb_sdk_mqtt_broker_deinit(b_);
        zeb_sdk_mqtt_broker_destroy(b_);
        b_ = nullptr;
    }
    mqtt_broker_instance *get() { return b_; }
    std::string text_of(int (*query)(mqtt_broker_instance *, char *, int)) {
        char buf[4096];
        EXPECT_EQ(query(b_, buf, sizeof buf), 0);
        return buf;
    }

  private:
    mqtt_broker_instance *b_ = nullptr;
};

}  // namespace zeb_test
